// SPDX-License-Identifier: Apache-2.0
// A reference vendor library loaded by path and filled through its getter,
// as the plugin does. The library stays loaded for the rest of the process.
#ifndef KXCAMERA_TESTS_VENDOR_VENDOR_LIBRARY_H
#define KXCAMERA_TESTS_VENDOR_VENDOR_LIBRARY_H

#include <dlfcn.h>

#include <string>

namespace kxtest {

// The getter's status, or -1 when the library or the symbol is missing.
template <typename Table> int LoadVendor(const std::string &path, const char *getter, Table &table)
{
    void *library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    void *symbol = library == nullptr ? nullptr : dlsym(library, getter);
    return symbol == nullptr ? -1 : reinterpret_cast<int (*)(Table *)>(symbol)(&table);
}

} // namespace kxtest

#endif // KXCAMERA_TESTS_VENDOR_VENDOR_LIBRARY_H
