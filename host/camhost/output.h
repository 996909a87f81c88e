// SPDX-License-Identifier: Apache-2.0
// Where one camera's stream goes: a bare Annex B file or pipe, a timed
// container, or the network. Containers and the network go through
// libavformat, which carries each unit's time stamp.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace camhost {

struct OutputWanted {
    std::string target;    // a path, "-" for standard output, or a URL
    int32_t codecType = 1; // 1 H.264, 2 H.265 (what reaches the output)
    int width = 0;
    int height = 0;
    int fps = 30; // a hint for players; time stamps rule
    bool overwrite = false;
    std::string sdpPath; // RTP: where the session description goes; empty prints it
};

class Output {
public:
    virtual ~Output() = default;

    // Every unit, in order; timeUs is the unit's capture time. False once
    // the destination can take no more (writeError() tells why).
    virtual bool Write(std::span<const uint8_t> unit, int64_t timeUs, bool key) = 0;
    // Completes the destination (a container gets its index); false on failure.
    virtual bool Finish() = 0;

    // The reader of a pipe went away: an end, not a failure.
    bool readerGone() const { return readerGone_; }
    const std::string &writeError() const { return writeError_; }
    const std::string &description() const { return description_; }

protected:
    bool readerGone_ = false;
    std::string writeError_;
    std::string description_;
};

// Refuses, without creating anything, a target this host cannot write: an
// unknown extension or scheme, a missing or read-only directory, an existing
// file without overwrite. Empty when fine.
std::string CheckOutput(const OutputWanted &wanted);
// Opens a checked target; null with error set when it cannot.
std::unique_ptr<Output> OpenOutput(const OutputWanted &wanted, std::string &error);
// Checks a path this run will create (same rules as a file output).
std::string CheckNewFile(const std::string &path, bool overwrite);

// What --output accepts, for messages and --help.
extern const char kOutputKinds[];

} // namespace camhost
