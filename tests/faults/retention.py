"""Months of daily runs on a small tmpfs, each with a faked clock (faketime) so that every simulated
day runs the real program, changing, adding and removing a few files; some days run twice. The
retention policy thins the runs as it goes. Afterwards: the records left are exactly the ones the
policy keeps of all runs ever made, every kept run restores byte for byte as the source was that
day, the mirror equals the source, one more run has nothing to do, and no run failed (for space or
anything else). A preview of a shorter policy names what it would take and takes nothing."""

import datetime
import json
import os
import random
import shutil
import subprocess
from zoneinfo import ZoneInfo

from faultkit import (contents, expect, expect_mirror, expect_status, mirror_of, recorded, require, run_cases, tail,
                      tmpfs, write)

ZONE = "Europe/Berlin"
NAME = "data"
# Quick: two months across the spring clock change with a short policy that reaches every tier;
# full: a year with the defaults, on a disk that the unthinned archives would fill.
TIERS = {"quick": (datetime.date(2026, 2, 10), 60, (3, 1, 1, 1), "16m"),
         "full": (datetime.date(2025, 4, 1), 365, (7, 4, 6, 5), "16m")}


def months_before(day, months):
    index = day.year * 12 + day.month - 1 - months
    year, month = divmod(index, 12)
    month += 1
    following = datetime.date(year + (month == 12), month % 12 + 1, 1)
    last = (following - datetime.timedelta(days=1)).day
    return datetime.date(year, month, min(day.day, last))


def policy_keeps(times, now, days, weeks, months, years):
    """The stamps the policy keeps: every run of the last days, then the newest of each day, ISO
    week, and (among those a week keeps) month, each up to its horizon from today."""
    zone = ZoneInfo(ZONE)
    date = {t: datetime.datetime.fromtimestamp(t, zone).date() for t in times}
    today = datetime.datetime.fromtimestamp(now, zone).date().toordinal()
    keep_all = today - days + 1
    daily = min(keep_all, today - 7 * weeks + 1)
    weekly = min(daily, months_before(datetime.date.fromordinal(today), months).toordinal() + 1)
    monthly = min(weekly, months_before(datetime.date.fromordinal(today), 12 * years).toordinal() + 1)

    def newest(key, among):
        best = {}
        for t in among:
            best[key(t)] = max(best.get(key(t), t), t)
        return set(best.values())

    of_day = newest(lambda t: date[t], times)
    of_week = newest(lambda t: date[t].isocalendar()[:2], times)
    of_month = newest(lambda t: (date[t].year, date[t].month), of_week)
    kept = set()
    for t in times:
        d = date[t].toordinal()
        if (d >= keep_all or (d >= daily and t in of_day) or (d >= weekly and t in of_week)
                or (d >= monthly and t in of_month)):
            kept.add(t)
    return kept | {max(times)}


def stamp_time(stamp):
    return datetime.datetime.strptime(stamp, "%Y-%m-%d %H.%M.%S %z").timestamp()


def simulated_year(ferrovane, work, tier):
    require("faketime")
    start, days, policy, size = TIERS[tier]
    disk = os.path.join(work, "disk")
    with tmpfs(disk, f"size={size}"):
        dest, source = os.path.join(disk, "dest"), os.path.join(work, "src", NAME)
        os.makedirs(dest)
        os.makedirs(source)
        rng = random.Random(days)
        for i in range(30):
            write(os.path.join(source, f"f{i:02}"), rng.randbytes(rng.randrange(1, 30000)))
        ferrovane.configure(dest, [source], (("purgeChangedArchive", "no"), ("purgeRemovedArchive", "no")))
        expect_status(ferrovane.config(dest, "retention", *map(str, policy)), 0, "config retention")
        # faketime preloads its library ahead of a sanitizer's runtime, which the sanitizer refuses
        # unless told that the order is on purpose.
        env = dict(ferrovane.env, TZ=ZONE, ASAN_OPTIONS=":".join(
            filter(None, [ferrovane.env.get("ASAN_OPTIONS", ""), "verify_asan_link_order=0"])))
        zone = ZoneInfo(ZONE)

        def run_at(moment):
            r = subprocess.run(["faketime", moment.strftime("%Y-%m-%d %H:%M:%S"), *ferrovane.args(dest)],
                               env=env, capture_output=True, timeout=300)
            expect(r.returncode == 0, f"run at {moment} exit {r.returncode}: {tail(r)}")
            return r

        states, made = {}, []
        for day in range(days):
            date = start + datetime.timedelta(days=day)
            for hour in (9, 21) if day % 5 == 4 else (12,):
                moment = datetime.datetime(date.year, date.month, date.day, hour, 0, tzinfo=zone)
                names = sorted(os.listdir(source))
                for name in rng.sample(names, 3):
                    write(os.path.join(source, name), rng.randbytes(rng.randrange(1, 30000)))
                if day % 7 == 3:
                    os.unlink(os.path.join(source, rng.choice(names)))
                    write(os.path.join(source, f"n{day:03}"), rng.randbytes(rng.randrange(1, 30000)))
                for name in os.listdir(source):
                    t = moment.timestamp() - 3600
                    if os.stat(os.path.join(source, name)).st_mtime > moment.timestamp():
                        os.utime(os.path.join(source, name), (t, t))
                _, stamp = recorded(dest, lambda: run_at(moment))
                made.append(stamp)
                states[stamp] = contents(source)

        now = stamp_time(made[-1])
        times = {stamp_time(s): s for s in made}
        expected = {times[t] for t in policy_keeps(list(times), now, *policy)}
        left = {n[:-len(".fvmanifest")] for n in os.listdir(os.path.join(dest, "__runs"))}
        expect(left == expected, f"records left differ from the policy's: extra {sorted(left - expected)[:5]}, "
                                 f"missing {sorted(expected - left)[:5]}")
        expect(len(left) < len(made) // 2, f"{len(left)} of {len(made)} runs kept: thinning did little")

        for stamp in sorted(left):
            out = os.path.join(work, "out", stamp)
            os.makedirs(out)
            r = ferrovane.command("restore", dest, source, "--at", stamp, "--to", out, env=env)
            expect(r.returncode == 0, f"restore --at {stamp} exit {r.returncode}: {tail(r)}")
            # Each version is found where thinning left it, not by trying others first.
            expect(b"differ from the record" not in r.stdout + r.stderr, f"restore --at {stamp}: {tail(r)}")
            restored = contents(os.path.join(out, NAME))
            expect(restored == states[stamp], f"restore --at {stamp} differs from that day's source: "
                                              f"{sorted(set(restored) ^ set(states[stamp]))[:5]}")
            shutil.rmtree(out)

        # A preview of a policy that keeps only the newest run names every other record and changes
        # nothing, the stored policy included.
        conf = open(os.path.join(dest, ".ferrovane.conf"), "rb").read()
        r = ferrovane.config(dest, "retention", "0", "0", "0", "0", "--dry-run")
        named = {line.split("/__runs/")[1][:-len(".fvmanifest")] for line in r.stdout.decode().splitlines()
                 if line.startswith("Would purge: ") and "/__runs/" in line}
        expect(r.returncode == 0 and named == left - {made[-1]}, f"preview named {len(named)} records: {tail(r)}")
        expect(open(os.path.join(dest, ".ferrovane.conf"), "rb").read() == conf, "the preview changed the configuration")
        expect({n[:-len(".fvmanifest")] for n in os.listdir(os.path.join(dest, "__runs"))} == left,
               "the preview removed records")

        expect_mirror(source, mirror_of(dest, source))
        last = datetime.datetime.fromtimestamp(now, zone) + datetime.timedelta(hours=1)
        run_at(last)
        r = ferrovane.command("runs", dest, "--json", env=env, timeout=60)
        newest = json.loads(r.stdout)["records"][0]
        expect((newest["copied"], newest["archived"], newest["removed"]) == (0, 0, 0),
               f"the run after the last day still had work: {newest}")


def run(ferrovane, work, tier, _):
    name = (f"{TIERS[tier][1]} days of runs with a faked clock on a {TIERS[tier][3]} tmpfs: the policy's runs "
            f"stay and restore exactly, the rest goes")
    yield from run_cases("retention", [(name, lambda w: simulated_year(ferrovane, w, tier))], work,
                         root_only=lambda _: True, why="needs the superuser to mount a tmpfs")
