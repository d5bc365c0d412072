// A host of the plug-in written in C, built with nothing but the public header's own flags:
// it loads the plug-in given on the command line with dlopen, resolves every C entry point
// and maps one FQDD. It does not start the worker threads.
#include <dlfcn.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include <rfevent/redfish_event.h>

// The record the platform's event system hands over keeps its byte layout.
_Static_assert(sizeof(DataEventHeader) == 72, "DataEventHeader is 72 bytes");
_Static_assert(offsetof(DataEventHeader, eventId) == 16, "eventId at byte 16");
_Static_assert(offsetof(DataEventHeader, messageArgsOffset) == 52, "messageArgsOffset at 52");
_Static_assert(offsetof(DataEventHeader, memberId) == 68, "memberId at byte 68");

typedef char* (*MapFqddFn)(const char*, char*, uint32_t);

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s PLUGIN\n", argv[0]);
        return 2;
    }
    void* plugin = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (plugin == NULL) {
        fprintf(stderr, "dlopen: %s\n", dlerror());
        return 1;
    }
    static const char* const entryPoints[] = {"RedfishEventPluginInit", "RedfishEventPluginCleanup",
                                              "Redfish_telemetry_init", "sendRedFishEventAlert",
                                              "MapFQDDToRedfishURI"};
    for (size_t i = 0; i < sizeof entryPoints / sizeof entryPoints[0]; ++i) {
        if (dlsym(plugin, entryPoints[i]) == NULL) {
            fprintf(stderr, "%s is not exported\n", entryPoints[i]);
            return 1;
        }
    }
    // A function pointer cannot be converted from void* in ISO C; copy its bits instead.
    void* symbol = dlsym(plugin, "MapFQDDToRedfishURI");
    MapFqddFn mapFqdd;
    memcpy(&mapFqdd, &symbol, sizeof mapFqdd);
    char uri[256];
    mapFqdd("System.Embedded.1", uri, sizeof uri);
    printf("System.Embedded.1 -> %s\n", uri);
    if (uri[0] != '/') {
        fprintf(stderr, "no Redfish URI for System.Embedded.1\n");
        return 1;
    }
    return dlclose(plugin) == 0 ? 0 : 1;
}
