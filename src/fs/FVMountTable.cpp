#include "fs/FVMountTable.h"

#include <libmount/libmount.h>

#include <cstdlib>

namespace ferrovane::FVMountTable {

std::string fileSystemTypeAtPath(const std::string& path) {
    char* mountPoint = mnt_get_mountpoint(path.c_str());
    if (!mountPoint) return "";
    std::string type;
    if (libmnt_table* table = mnt_new_table_from_file("/proc/self/mountinfo")) {
        if (libmnt_fs* fs = mnt_table_find_target(table, mountPoint, MNT_ITER_BACKWARD)) {
            if (const char* name = mnt_fs_get_fstype(fs)) type = name;
        }
        mnt_unref_table(table);
    }
    free(mountPoint);
    return type;
}

std::string mountPointOfPath(const std::string& path) {
    char* mountPoint = mnt_get_mountpoint(path.c_str());
    if (!mountPoint) return "";
    std::string found = mountPoint;
    free(mountPoint);
    return found;
}

}  // namespace ferrovane::FVMountTable
