/* SPDX-License-Identifier: Apache-2.0 */
/* Loads the installed plugin through its C ABI and checks the table it fills.
 * It calls nothing of libtalvo itself, which the plugin needs all the same. */
#define _POSIX_C_SOURCE 200809L
#include <dlfcn.h>
#include <stdio.h>

#include "kxcamera/plugin.h"

int main(void)
{
    void *plugin = dlopen(KXCAMERA_CONSUMER_PLUGIN, RTLD_NOW | RTLD_LOCAL);
    if (plugin == NULL) {
        fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    int32_t (*entry)(KxServiceHandler *) = NULL;
    /* POSIX's way to take a function from dlsym in ISO C. */
    *(void **)(&entry) = dlsym(plugin, "TALVOGetCameraServiceHandler");
    KxServiceHandler table = {0};
    uint64_t version = 0;
    if (entry == NULL || entry(&table) != 0 || table.getVersion(&version) != 0 || table.reserved8 != NULL) {
        return 1;
    }
    printf("consumer: plugin version 0x%016llx\n", (unsigned long long)version);
    dlclose(plugin);
    return version == 0x0001000000000000ULL ? 0 : 1;
}
