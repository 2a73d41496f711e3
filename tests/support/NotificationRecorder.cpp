// A desktop notification server for tests: owns org.freedesktop.Notifications on the session
// bus and appends one line per Notify call to the file named by its argument:
// "summary\tbody\treplaces_id\treturned id\tdesktop-entry hint\turgency hint".

#include <systemd/sd-bus.h>

#include <cstdio>
#include <cstring>
#include <string>

static std::string gRecordPath;
static uint32_t gNextId = 41;  // not 1, so that a replaced id cannot be right by chance

static int readHints(sd_bus_message* m, std::string& desktopEntry, int& urgency) {
    int r = sd_bus_message_skip(m, "as");
    if (r < 0 || (r = sd_bus_message_enter_container(m, 'a', "{sv}")) < 0) return r;
    while ((r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
        const char* key;
        if ((r = sd_bus_message_read(m, "s", &key)) < 0) return r;
        if (std::strcmp(key, "desktop-entry") == 0) {
            const char* value;
            if ((r = sd_bus_message_read(m, "v", "s", &value)) < 0) return r;
            desktopEntry = value;
        } else if (std::strcmp(key, "urgency") == 0) {
            uint8_t value;
            if ((r = sd_bus_message_read(m, "v", "y", &value)) < 0) return r;
            urgency = value;
        } else if ((r = sd_bus_message_skip(m, "v")) < 0) {
            return r;
        }
        if ((r = sd_bus_message_exit_container(m)) < 0) return r;
    }
    return r < 0 ? r : sd_bus_message_exit_container(m);
}

static int onNotify(sd_bus_message* m, void*, sd_bus_error*) {
    const char *app, *icon, *summary, *body;
    uint32_t replaces;
    if (sd_bus_message_read(m, "susss", &app, &replaces, &icon, &summary, &body) < 0) return -EINVAL;
    std::string desktopEntry;
    int urgency = -1;
    if (readHints(m, desktopEntry, urgency) < 0) return -EINVAL;
    uint32_t id = replaces ? replaces : gNextId++;
    if (FILE* f = std::fopen(gRecordPath.c_str(), "a")) {
        std::string b = body;
        for (char& c : b)
            if (c == '\n') c = '|';
        std::fprintf(f, "%s\t%s\t%u\t%u\t%s\t%d\n", summary, b.c_str(), replaces, id, desktopEntry.c_str(), urgency);
        std::fclose(f);
    }
    return sd_bus_reply_method_return(m, "u", id);
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
