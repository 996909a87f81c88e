// SPDX-License-Identifier: Apache-2.0
// Dynamic loading: vendor directories first, then the system search.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include <dlfcn.h>
#include <unistd.h>

#include "internal.h"

namespace {

// dlerror() forgets its text once read; callers ask for it after our call
// returned, so each thread keeps its own copy of the last failure.
thread_local char t_lastError[512];

void SetError(const char *text)
{
    std::snprintf(t_lastError, sizeof(t_lastError), "%s", text != nullptr ? text : "unknown dynamic loading error");
}

constexpr int kOpenFlags = RTLD_NOW | RTLD_LOCAL;

// Tries dir/file for each entry of TALVO_VENDOR_PATH. A candidate that
// exists but fails to load leaves its error in firstError, which explains
// a final failure better than "not found".
void *OpenFromVendorPath(const char *file, std::string &firstError)
{
    const char *path = std::getenv("TALVO_VENDOR_PATH");
    if (path == nullptr) {
        return nullptr;
    }
    std::string_view rest(path);
    while (!rest.empty()) {
        const size_t colon = rest.find(':');
        const std::string_view dir = rest.substr(0, colon);
        rest = colon == std::string_view::npos ? std::string_view() : rest.substr(colon + 1);
        if (dir.empty()) {
            continue;
        }
        std::string candidate(dir);
        candidate.append("/").append(file);
        void *handle = dlopen(candidate.c_str(), kOpenFlags);
        if (handle != nullptr) {
            return handle;
        }
        const char *error = dlerror();
        if (firstError.empty() && error != nullptr && access(candidate.c_str(), F_OK) == 0) {
            firstError = error;
        }
    }
    return nullptr;
}

} // namespace

void *TALVODlOpen(const char *file, int32_t mode)
{
    // Every mode means "resolve now, keep symbols private".
    (void)mode;
    if (talvo::CallFails(TALVO_FN_DLOPEN)) {
        SetError("injected failure");
        return nullptr;
    }
    if (file == nullptr || file[0] == '\0') {
        SetError("no library name given");
        return nullptr;
    }
    std::string firstError;
    if (std::strchr(file, '/') == nullptr) {
        void *handle = OpenFromVendorPath(file, firstError);
        if (handle != nullptr) {
            return handle;
        }
    }
    void *handle = dlopen(file, kOpenFlags);
    if (handle == nullptr) {
        const char *error = dlerror();
        SetError(firstError.empty() ? error : firstError.c_str());
    }
    return handle;
}

void *TALVODlSym(void *handle, const char *symbol)
{
    if (talvo::CallFails(TALVO_FN_DLSYM)) {
        SetError("injected failure");
        return nullptr;
    }
    if (handle == nullptr || symbol == nullptr) {
        SetError("no library handle or symbol name given");
        return nullptr;
    }
    (void)dlerror();
    void *address = dlsym(handle, symbol);
    if (address == nullptr) {
        const char *error = dlerror();
        if (error != nullptr) {
            SetError(error);
        }
    }
    return address;
}

int32_t TALVODlClose(void *handle)
{
    if (handle == nullptr) {
        SetError("no library handle given");
        return EINVAL;
    }
    if (dlclose(handle) != 0) {
        SetError(dlerror());
        return EINVAL;
    }
    return 0;
}

const char *TALVODlError(void)
{
    return t_lastError;
}
