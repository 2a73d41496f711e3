// Copies a file or a tree through FVFileCopyWorker the way a sync job does (a walk on this
// thread feeding pairs while the threads copy) and prints the elapsed seconds.
//   copy_worker_driver THREADS SOURCE DESTINATION-FOLDER

#include "engine/copy/FVFileCopyWorker.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

using namespace ferrovane;

namespace {

struct Waiter : FVFileCopyWorkerDelegate {
    std::mutex mutex;
    std::condition_variable ended;
    bool done = false;
    int errors = 0;
    void copyWorkerDidGenerateMessage(const std::string& message, FVMessageLevel level) override {
        std::lock_guard lock(mutex);
        if (level == FVMessageLevel::Error) ++errors;
        std::fprintf(stderr, "%s\n", message.c_str());
    }
    void copyWorkerDidFinishCopy() override { end(); }
    void copyWorkerDidCancel() override { end(); }
    void end() {
        std::lock_guard lock(mutex);
        done = true;
        ended.notify_all();
    }
};

void walk(FVFileCopyWorker& worker, const std::string& source, const std::string& destination) {
    DIR* dir = opendir(source.c_str());
    if (!dir) return;
    while (dirent* entry = readdir(dir)) {
        if (!strcmp(entry->d_name, ".") || !strcmp(entry->d_name, "..")) continue;
        std::string from = source + "/" + entry->d_name, to = destination + "/" + entry->d_name;
        struct stat st {};
        if (lstat(from.c_str(), &st) != 0) continue;
        worker.addCopyItemFromSource(std::make_shared<FVFileSystemItem>(from, st), FVFileSystemItem::itemWithPath(to));
        if (S_ISDIR(st.st_mode)) walk(worker, from, to);
    }
    closedir(dir);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s THREADS SOURCE DESTINATION-FOLDER\n", argv[0]);
        return 2;
    }
    std::string source = argv[2], destination = argv[3];
    auto start = std::chrono::steady_clock::now();
    Waiter waiter;
    {
        FVFileCopyWorker worker;
        worker.setDelegate(&waiter);
        worker.setMaxThreads(std::atoll(argv[1]));
        worker.setDestinationRoot(destination);
        worker.startCopySession();
        struct stat st {};
        if (lstat(source.c_str(), &st) != 0) return 2;
        std::string name = source.substr(source.find_last_of('/') + 1);
        worker.addCopyItemFromSource(std::make_shared<FVFileSystemItem>(source, st),
                                     FVFileSystemItem::itemWithPath(destination + "/" + name));
        if (S_ISDIR(st.st_mode)) walk(worker, source, destination + "/" + name);
        worker.endCopySession();
        std::unique_lock lock(waiter.mutex);
        waiter.ended.wait(lock, [&] { return waiter.done; });
    }
    std::printf("%.3f\n", std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    return waiter.errors ? 1 : 0;
}
