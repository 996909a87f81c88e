// SPDX-License-Identifier: Apache-2.0
// Internals shared by the files of libtalvo.so: export control, the door to
// the test controls and the counted heap.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>

// What the three public headers declare gets default visibility; everything
// else stays hidden, and talvo.map keeps the dynamic table to these names.
#pragma GCC visibility push(default)
#include "talvo/securec.h"
#include "talvo/talvo.h"
#include "talvo/testing.h"
#pragma GCC visibility pop

#include "testing/hooks.h"

namespace talvo {

// The heap behind TalvoMalloc, also used for packet buffers so that the
// outstanding-block count sees them. Never returns the same pointer for two
// live blocks, even for size 0.
void *AllocCounted(size_t size);
void FreeCounted(void *block);

} // namespace talvo
