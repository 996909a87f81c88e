// SPDX-License-Identifier: Apache-2.0
// kxcamera-compliance: checks a device maker's camera handler and video
// encoder libraries against what the plugin relies on, before integration.
#include <dlfcn.h>

#include <fstream>
#include <iostream>

#include <CLI/CLI.hpp>

#include "checks.h"

namespace kxcompliance {

std::string LoadVendorTable(const std::string &path, const char *getter, void *table)
{
    // RTLD_NOW: a missing framework function shows here, not mid-stream.
    void *handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        const char *error = dlerror();
        return error != nullptr ? error : "dlopen failed";
    }
    using Getter = int32_t (*)(void *);
    const auto fill = reinterpret_cast<Getter>(dlsym(handle, getter));
    if (fill == nullptr) {
        return std::string("the library exports no \"") + getter + "\"";
    }
    if (const int32_t status = fill(table); status != 0) {
        return std::string(getter) + " returned " + std::to_string(status) + "; the plugin refuses the library";
    }
    return {};
}

} // namespace kxcompliance

int main(int argc, char **argv)
{
    CLI::App app{"Checks a camera handler library and/or a video encoder library against the contract the "
                 "kxcamera plugin relies on. Prints PASS, FAIL or SKIP for every check; exits 1 on any failure."};
    std::string camera;
    std::string encoder;
    std::string json;
    kxcompliance::Options options;
    app.add_option("--camera", camera, "camera handler library to check (libtalvocamerahandler.so)")
        ->check(CLI::ExistingFile);
    app.add_option("--encoder", encoder, "video encoder library to check (libtalvovideoencoder.so)")
        ->check(CLI::ExistingFile);
    app.add_option("--frames", options.frames, "frames of the timing and encoding runs")
        ->capture_default_str()
        ->check(CLI::Range(10u, 100000u));
    app.add_option("--combination-frames", options.combinationFrames,
                   "frames streamed with every advertised format x size x rate")
        ->capture_default_str()
        ->check(CLI::Range(1u, 1000u));
    app.add_option("--json", json, "also write the results as JSON to this file ('-': stdout, instead of text)");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        // --help succeeds; every usage error exits 2, apart from check failures.
        return app.exit(error) == 0 ? 0 : 2;
    }
    if (camera.empty() && encoder.empty()) {
        std::cerr << "kxcamera-compliance: give --camera, --encoder or both (see --help)\n";
        return 2;
    }

    const bool jsonOnStdout = json == "-";
    kxcompliance::Report report(jsonOnStdout ? nullptr : &std::cout);
    if (!camera.empty()) {
        kxcompliance::CheckCameraLibrary(report, camera, options);
    }
    if (!encoder.empty()) {
        kxcompliance::CheckEncoderLibrary(report, encoder, options);
    }
    if (jsonOnStdout) {
        std::cout << report.Json().dump(2) << '\n';
    } else {
        report.PrintSummary(std::cout);
        if (!json.empty()) {
            std::ofstream(json) << report.Json().dump(2) << '\n';
        }
    }
    return report.failed() ? 1 : 0;
}
