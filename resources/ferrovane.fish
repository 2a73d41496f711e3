# fish completion for ferrovane(1)

set -l commands runs search versions ls restore verify config check-overdue
set -l config_subcommands show add remove set schedule confirm-empty retention exclude exclude-from hook

# Words only the destination knows come from "ferrovane __complete WHAT [DESTINATION]".
function __ferrovane_known -a what
    set -l words (commandline -opc)
    set -l destination $words[3]
    set destination (string replace -r '^~' -- $HOME $destination)
    command $words[1] __complete $what $destination 2>/dev/null
end

# Whether the word being completed is word POSITION of a config command (the program is word 0).
function __ferrovane_config_at -a position
    set -l words (commandline -opc)
    test "$words[2]" = config; and test (count $words) -eq $position
end

function __ferrovane_config_sub -a sub
    set -l words (commandline -opc)
    test "$words[2]" = config; and test "$words[4]" = $sub
end

complete -c ferrovane -f

# Before a command: a backup run's options (the harmless one first), or the window's.
set -l first "not __fish_seen_subcommand_from $commands"
complete -c ferrovane -n $first -s n -l dry-run -d 'list what the backup would do; change nothing'
complete -c ferrovane -n $first -s q -l quiet -d 'print only errors'
complete -c ferrovane -n $first -s v -l verbose -d 'add a line for each item copied, archived or deleted'
complete -c ferrovane -n $first -l json -d 'print a JSON summary at the end instead of the lines'
complete -c ferrovane -n $first -l progress -x -a 'auto none json' -d 'how progress is shown'
complete -c ferrovane -n $first -l no-notifications -d 'no desktop notification'
complete -c ferrovane -n $first -o noUserNotifications -d 'no desktop notification'
complete -c ferrovane -n $first -l trigger -x -a 'schedule connect manual' -d 'what started the run'
complete -c ferrovane -n $first -l job -x -d 'the UUID of the job that started the run'
complete -c ferrovane -n $first -l add -r -F -d 'paths to add as sources in the window'
complete -c ferrovane -n $first -l version -d 'print the version and the build number'
complete -c ferrovane -s h -l help -d 'print help'
complete -c ferrovane -n __fish_use_subcommand -a '(__fish_complete_directories)'
complete -c ferrovane -n __fish_use_subcommand -a runs -d 'list the runs and what their archives hold'
complete -c ferrovane -n __fish_use_subcommand -a search -d 'find files by name, with their archived versions'
complete -c ferrovane -n __fish_use_subcommand -a versions -d 'list every version of a backed-up path'
complete -c ferrovane -n __fish_use_subcommand -a ls -d 'list a folder as a run recorded it'
complete -c ferrovane -n __fish_use_subcommand -a restore -d 'copy versions, folders or every source back'
complete -c ferrovane -n __fish_use_subcommand -a verify -d 'read every file again and compare it with its record'
complete -c ferrovane -n __fish_use_subcommand -a config -d 'edit the sources, options and schedule'
complete -c ferrovane -n __fish_use_subcommand -a check-overdue -d 'tell which scheduled backups are overdue'

# Each command's destination, then its paths.
complete -c ferrovane -n "__fish_seen_subcommand_from runs search versions ls restore verify config; and test (count (commandline -opc)) -eq 2" -a '(__fish_complete_directories)'
complete -c ferrovane -n "__fish_seen_subcommand_from versions ls restore; and test (count (commandline -opc)) -ge 3" -F
complete -c ferrovane -n '__fish_seen_subcommand_from runs search versions ls verify check-overdue' -l json -d 'print JSON for scripts'

set -l runs_at '(__ferrovane_known runs)'
complete -c ferrovane -n '__fish_seen_subcommand_from ls' -l at -x -a $runs_at -d 'the run: a stamp, a date or a time'
complete -c ferrovane -n '__fish_seen_subcommand_from verify' -l at -x -a $runs_at -d 'also check every version of this run'
complete -c ferrovane -n '__fish_seen_subcommand_from verify' -l sources -d "also compare each source file's bytes with its record"

complete -c ferrovane -n '__fish_seen_subcommand_from restore' -l dry-run -d 'list what would be restored; write nothing'
complete -c ferrovane -n '__fish_seen_subcommand_from restore' -l all -d 'restore every source'
complete -c ferrovane -n '__fish_seen_subcommand_from restore' -l version -x -a 'current (__ferrovane_known versions)' -d 'the version stamp, or current'
complete -c ferrovane -n '__fish_seen_subcommand_from restore' -l at -x -a $runs_at -d 'as the run of this stamp, date or time recorded it'
complete -c ferrovane -n '__fish_seen_subcommand_from restore' -l to -x -a '(__fish_complete_directories)' -d 'the folder to restore into'
complete -c ferrovane -n '__fish_seen_subcommand_from restore' -l replace -d 'move existing different items to the trash first'

complete -c ferrovane -n '__fish_seen_subcommand_from check-overdue' -l no-notifications -d 'only print; notify nobody'

# config DESTINATION SUBCOMMAND ...
complete -c ferrovane -n '__ferrovane_config_at 3' -a show -d 'list the sources and options'
complete -c ferrovane -n '__ferrovane_config_at 3' -a add -d 'add a source'
complete -c ferrovane -n '__ferrovane_config_at 3' -a remove -d 'remove a source as listed'
complete -c ferrovane -n '__ferrovane_config_at 3' -a set -d 'set an option'
complete -c ferrovane -n '__ferrovane_config_at 3' -a schedule -d 'show or set when runs start by themselves'
complete -c ferrovane -n '__ferrovane_config_at 3' -a confirm-empty -d 'let an empty source empty its mirror once'
complete -c ferrovane -n '__ferrovane_config_at 3' -a retention -d 'thin out old versions by age'
complete -c ferrovane -n '__ferrovane_config_at 3' -a exclude -d 'leave out what patterns match in every source'
complete -c ferrovane -n '__ferrovane_config_at 3' -a exclude-from -d 'add the patterns of a file'
complete -c ferrovane -n '__ferrovane_config_at 3' -a hook -d 'show or set a command to run before or after each run'
complete -c ferrovane -n '__ferrovane_config_sub hook; and __ferrovane_config_at 4' -x -a 'before after'
complete -c ferrovane -n '__ferrovane_config_sub hook' -l remove -d 'take the hook out'
complete -c ferrovane -n '__ferrovane_config_sub hook' -l approve -d 'let the hook stored on the disk run here'
complete -c ferrovane -n '__ferrovane_config_sub exclude' -l remove -d 'take the patterns out again'
complete -c ferrovane -n '__ferrovane_config_sub exclude-from; and __ferrovane_config_at 4' -F
complete -c ferrovane -n '__ferrovane_config_sub show; or __ferrovane_config_sub schedule' -l json -d 'print JSON for scripts'
complete -c ferrovane -n '__ferrovane_config_sub add' -l mode -x -a 'backup disabled exclude exclude-name' -d 'how the source is used'
complete -c ferrovane -n '__ferrovane_config_sub add' -F
complete -c ferrovane -n '__ferrovane_config_sub remove; or __ferrovane_config_sub confirm-empty; and __ferrovane_config_at 4' -a '(__ferrovane_known sources)'
complete -c ferrovane -n '__ferrovane_config_sub set; and __ferrovane_config_at 4' -a '(__ferrovane_known options)'
complete -c ferrovane -n '__ferrovane_config_sub set; and __ferrovane_config_at 5' -a 'yes no'
complete -c ferrovane -n '__ferrovane_config_sub schedule; and __ferrovane_config_at 4' -a 'daily weekly when-connected off'
complete -c ferrovane -n '__ferrovane_config_sub schedule; and __ferrovane_config_at 5' -a 'monday tuesday wednesday thursday friday saturday sunday on off'
complete -c ferrovane -n '__ferrovane_config_sub retention; and __ferrovane_config_at 4' -a 'on off'
complete -c ferrovane -n '__ferrovane_config_sub retention' -l dry-run -d 'list what the policy would remove now; change nothing'
