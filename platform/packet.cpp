// SPDX-License-Identifier: Apache-2.0
// Framework packets: a byte buffer filled front to back, integers in
// network byte order.
#include <cstring>
#include <mutex>
#include <unordered_set>

#include "internal.h"

namespace {

// The 16-byte packet record has no room for an ownership flag, so the
// buffers Init allocated are remembered here.
std::mutex g_ownedLock;
std::unordered_set<const void *> g_owned;

int32_t Append(TALVOPacket *packet, const void *bytes, uint32_t len)
{
    if (packet == nullptr || packet->data == nullptr || packet->length > packet->capacity) {
        return EINVAL;
    }
    if (len > packet->capacity - packet->length) {
        return ENOSPC;
    }
    if (len != 0) {
        std::memcpy(packet->data + packet->length, bytes, len);
        packet->length += len;
    }
    return 0;
}

int32_t AppendBigEndian(TALVOPacket *packet, uint32_t value)
{
    const uint8_t bytes[4] = {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
                              static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
    return Append(packet, bytes, sizeof(bytes));
}

} // namespace

int32_t TALVOPacketInit(TALVOPacket *packet, uint8_t *buffer, uint32_t capacity)
{
    if (talvo::CallFails(TALVO_FN_PACKET_INIT)) {
        return TALVO_TEST_INJECTED_ERROR;
    }
    if (packet == nullptr || (buffer == nullptr && capacity == 0)) {
        return EINVAL;
    }
    if (buffer == nullptr) {
        buffer = static_cast<uint8_t *>(talvo::AllocCounted(capacity));
        if (buffer == nullptr) {
            return ENOMEM;
        }
        std::lock_guard<std::mutex> guard(g_ownedLock);
        g_owned.insert(buffer);
    }
    packet->data = buffer;
    packet->capacity = capacity;
    packet->length = 0;
    return 0;
}

int32_t TALVOPacketWriteUint32(TALVOPacket *packet, uint32_t value)
{
    if (talvo::CallFails(TALVO_FN_PACKET_WRITE)) {
        return TALVO_TEST_INJECTED_ERROR;
    }
    return AppendBigEndian(packet, value);
}

int32_t TALVOPacketWriteInt32(TALVOPacket *packet, int32_t value)
{
    if (talvo::CallFails(TALVO_FN_PACKET_WRITE)) {
        return TALVO_TEST_INJECTED_ERROR;
    }
    return AppendBigEndian(packet, static_cast<uint32_t>(value));
}

int32_t TALVOPacketWriteBytes(TALVOPacket *packet, const uint8_t *bytes, uint32_t len)
{
    if (talvo::CallFails(TALVO_FN_PACKET_WRITE)) {
        return TALVO_TEST_INJECTED_ERROR;
    }
    if (bytes == nullptr && len != 0) {
        return EINVAL;
    }
    return Append(packet, bytes, len);
}

int32_t TALVOPacketWriteString(TALVOPacket *packet, const char *text, uint32_t len)
{
    if (talvo::CallFails(TALVO_FN_PACKET_WRITE)) {
        return TALVO_TEST_INJECTED_ERROR;
    }
    // A text shorter than len would have us copy past its terminator.
    if (len != 0 && (text == nullptr || strnlen(text, len) < len)) {
        return EINVAL;
    }
    return Append(packet, text, len);
}

int32_t TALVOPacketRelease(TALVOPacket *packet)
{
    if (packet == nullptr) {
        return EINVAL;
    }
    bool owned;
    {
        std::lock_guard<std::mutex> guard(g_ownedLock);
        owned = packet->data != nullptr && g_owned.erase(packet->data) != 0;
    }
    if (owned) {
        talvo::FreeCounted(packet->data);
    }
    std::memset(packet, 0, sizeof(*packet));
    return 0;
}
