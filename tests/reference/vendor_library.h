// SPDX-License-Identifier: Apache-2.0
// Loads a reference vendor library by path, as the plugin does, and hands
// out its operations table.
#ifndef KXCAMERA_TESTS_VENDOR_VENDOR_LIBRARY_H
#define KXCAMERA_TESTS_VENDOR_VENDOR_LIBRARY_H

#include <dlfcn.h>

#include <string>

namespace kxtest {

class VendorLibrary {
public:
    explicit VendorLibrary(const std::string &path) : handle_(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {}
    ~VendorLibrary()
    {
        if (handle_ != nullptr) {
            dlclose(handle_);
        }
    }
    VendorLibrary(const VendorLibrary &) = delete;
    VendorLibrary &operator=(const VendorLibrary &) = delete;

    bool loaded() const { return handle_ != nullptr; }

    // Fills `table` through the getter `name`; the getter's status, or -1
    // when the library or the symbol is missing.
    template <typename Table>
    int Fill(const char *name, Table &table) const
    {
        using Getter = int (*)(Table *);
        void *symbol = handle_ == nullptr ? nullptr : dlsym(handle_, name);
        return symbol == nullptr ? -1 : reinterpret_cast<Getter>(symbol)(&table);
    }

private:
    void *handle_;
};

} // namespace kxtest

#endif // KXCAMERA_TESTS_VENDOR_VENDOR_LIBRARY_H
