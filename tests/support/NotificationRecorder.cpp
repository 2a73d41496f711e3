// A desktop notification server for tests: owns org.freedesktop.Notifications on the session
// bus and appends "summary\tbody" of every Notify call to the file named by its argument.

#include <systemd/sd-bus.h>

#include <cstdio>
#include <string>

static std::string gRecordPath;

static int onNotify(sd_bus_message* m, void*, sd_bus_error*) {
    const char *app, *icon, *summary, *body;
    uint32_t replaces;
    if (sd_bus_message_read(m, "susss", &app, &replaces, &icon, &summary, &body) < 0) return -EINVAL;
    if (FILE* f = std::fopen(gRecordPath.c_str(), "a")) {
        std::string b = body;
        for (char& c : b)
            if (c == '\n') c = '|';
        std::fprintf(f, "%s\t%s\n", summary, b.c_str());
        std::fclose(f);
    }
    return sd_bus_reply_method_return(m, "u", 1u);
}

static const sd_bus_vtable kVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Notify", "susssasa{sv}i", "u", onNotify, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END};

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    gRecordPath = argv[1];
    sd_bus* bus = nullptr;
    if (sd_bus_open_user(&bus) < 0) return 1;
    sd_bus_slot* slot = nullptr;
    if (sd_bus_add_object_vtable(bus, &slot, "/org/freedesktop/Notifications",
                                 "org.freedesktop.Notifications", kVtable, nullptr) < 0)
        return 1;
    if (sd_bus_request_name(bus, "org.freedesktop.Notifications", 0) < 0) return 1;
    std::printf("ready\n");
    std::fflush(stdout);
    for (;;) {
        int r = sd_bus_process(bus, nullptr);
        if (r < 0) return 1;
        if (r > 0) continue;
        if (sd_bus_wait(bus, UINT64_MAX) < 0) return 1;
    }
}
