#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes the seed corpora under fuzz/corpus/, one directory per target.

Each seed is a valid, meaningful input in the target's format (described at
the head of each target's source). Run by hand after changing a format; the
output is committed, and the fuzz job only ever reads it.
"""
import os
import shutil
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
CORPUS = os.path.join(HERE, "corpus")


def u8(v):
    return struct.pack("<B", v & 0xFF)


def u16(v):
    return struct.pack("<H", v & 0xFFFF)


def i16(v):
    return struct.pack("<h", v)


def u32(v):
    return struct.pack("<I", v & 0xFFFFFFFF)


# --- ability text ---------------------------------------------------------

def ability(data_fmt, ranges, sizes, list_flags=0, fps_count=None, size_count=None):
    out = u32(data_fmt) + u8(list_flags)
    out += u16(len(ranges) if fps_count is None else fps_count)
    out += u16(len(sizes) if size_count is None else size_count)
    for lo, hi in ranges:
        out += u32(lo) + u32(hi)
    for w, h in sizes:
        out += u32(w) + u32(h)
    return out


def extend(key, value, flags=0):
    return u8(flags) + u8(len(key)) + key + u8(len(value)) + value


def capability(size, cam_id, abilities, extends, flags=0):
    out = i16(size) + u8(flags) + u8(len(cam_id)) + cam_id + u8(len(abilities))
    out += b"".join(abilities)
    out += u8(len(extends)) + b"".join(extends)
    return out


STREAM_0 = ability(1, [(15, 30), (30, 30)], [(1280, 720), (1920, 1080)])
# The worked example's text is 235 characters.
EXAMPLE_0 = capability(1400, b"0", [STREAM_0], [])

ABILITY_TEXT = {
    "stream_h264": EXAMPLE_0,
    "frame_rgb565_extend": capability(1400, b"1", [ability(4, [(30, 30)], [(640, 480)])], [extend(b"k", b"v")]),
    "mixed_sections": capability(
        1400, b"cam-front",
        [ability(1, [(15, 30)], [(1280, 720)]), ability(2, [(30, 60)], [(3840, 2160)]),
         ability(17, [(5, 30)], [(640, 480), (320, 240)]), ability(0, [], [])],
        [extend(b"position", b"front"), extend(b"lens", b"wide")]),
    # size - 2 characters fit exactly; one less and the final brace fails.
    "exact_fit": capability(237, b"0", [STREAM_0], []),
    "final_brace_short": capability(236, b"0", [STREAM_0], []),
    "id_does_not_fit": capability(12, b"0", [STREAM_0], []),
    "fifty_sizes_too_long": capability(1400, b"7", [ability(17, [(30, 30)], [(1000 + i, 1000 + i) for i in range(50)])],
                                       []),
    "size_negative": capability(-1, b"0", [STREAM_0], []),
    # A second entry whose size list is absent although counted.
    "absent_list_counted": capability(1400, b"2", [STREAM_0, ability(4, [(30, 30)], [], list_flags=2, size_count=3)],
                                      []),
    "quotes_unescaped": capability(1400, b'q"1', [ability(2, [(1, 2)], [(2, 2)])], [extend(b'a"b', b"c\\d")]),
    # 501 ranges: only the first 500 are read and printed.
    "ranges_capped": capability(32767, b"9", [ability(1, [(i, i + 1) for i in range(500)], [(16, 16)], fps_count=501)],
                                []),
    "extend_null_value": capability(1400, b"3", [], [extend(b"k", b"v"), extend(b"x", b"", flags=2)]),
}

# --- negotiated parameters ------------------------------------------------

NEG_PARAMS = {
    "open_raw_nv21": b'{"Width":1280,"Height":720,"ColorFormat":2,"CodecType":0}',
    "open_h264_with_fps": b'{"Width":640,"Height":480,"ColorFormat":4,"CodecType":1,"Fps":25}',
    "update_fps": b'{"Fps":30}',
    "codec_above_max": b'{"Width":1920,"Height":1080,"ColorFormat":0,"CodecType":3}',
    "codec_negative": b'{"Width":"640","Height":"480","ColorFormat":"2","CodecType":"-1"}',
    "missing_colour": b'{"Width":320,"Height":240,"CodecType":0}',
    "neither_key": b'{"Height":1,"CodecType":2}',
    "odd_values": b'{"Width":99999999999,"Height":-5,"ColorFormat":2.5,"CodecType":true}',
    "not_json": b"Width=640;Height=480;Fps=30",
}

# --- colour conversion ----------------------------------------------------

I420, NV12, NV21, RGB565 = 0, 1, 2, 4


def image(src, dst, width, height, src_extra=0, dst_extra=0, flags=0, dst_size=None, fill=None):
    out = u8(src) + u8(dst) + u8(flags | (16 if dst_size else 0)) + i16(width) + i16(height)
    if dst_size:
        out += i16(dst_size[0]) + i16(dst_size[1])
    out += i16(src_extra) + i16(dst_extra)
    return out + (fill if fill is not None else bytes(range(7, 256, 13)))


COLOR_CONVERT = {
    "nv21_to_i420": image(NV21, I420, 16, 16),
    "rgb565_to_i420": image(RGB565, I420, 16, 16, fill=bytes([0x1F, 0xF8, 0xE0, 0x07, 0x00, 0xF8, 0xFF, 0xFF])),
    "i420_to_nv12": image(I420, NV12, 16, 16),
    "nv21_odd_padded": image(NV21, I420, 15, 9, src_extra=1, dst_extra=5),
    "i420_to_nv12_odd": image(I420, NV12, 7, 5, src_extra=3, dst_extra=1),
    "rgb565_padded": image(RGB565, I420, 6, 4, src_extra=6, dst_extra=2),
    "size_mismatch": image(NV21, I420, 64, 48, dst_size=(64, 36)),
    "unsupported_pair": image(NV12, I420, 16, 16),
    "same_layout_refused": image(I420, I420, 16, 16),
    "data_missing": image(NV21, I420, 16, 16, flags=4),
    "stride_below_width": image(NV21, I420, 16, 16, src_extra=-20),
}

# --- vendor reports -------------------------------------------------------

OP_FRAME, OP_STATUS, OP_ACTION, OP_CMDCB, OP_PARAMS, OP_OPEN, OP_CLOSE = range(7)
CAM0, CAM1, BYTES, NULL = range(4)


def vid(kind, data=b"", null_len=1):
    if kind == BYTES:
        return u8(BYTES) + u8(len(data)) + data
    if kind == NULL:
        return u8(NULL) + u8(null_len)
    return u8(kind)


def frame(sender, data, sender_bytes=b""):
    out = u8(OP_FRAME) + u8(sender)
    if sender == BYTES:
        out += u8(len(sender_bytes)) + sender_bytes
    return out + u8(0) + u16(len(data)) + data


def frame_null_data(sender, length):
    return u8(OP_FRAME) + u8(sender) + u8(1) + u32(length)


def frame_too_long(sender):
    return u8(OP_FRAME) + u8(sender) + u8(2) + u16(1)


def status(vendor, value):
    return u8(OP_STATUS) + vendor + u8(value)


def action(vendor, kind, value, null_value=False):
    return u8(OP_ACTION) + vendor + u8(kind) + u8(1 if null_value else 0) + u8(len(value)) + value


def cmdcb(camera, mode):
    return u8(OP_CMDCB) + u8(camera) + u8(mode)


def params_open(camera, codec, width, height, colour):
    return u8(OP_PARAMS) + u8(camera) + u8(0) + u8(codec) + u8(width // 2) + u8(height // 2) + u8(colour)


def params_fps(camera, fps):
    return u8(OP_PARAMS) + u8(camera) + u8(1) + u8(fps)


def params_text(camera, text):
    return u8(OP_PARAMS) + u8(camera) + u8(2) + u8(len(text)) + text


# Indices into the fuzzer's kHostileSizes.
SIZE_48, SIZE_64, SIZE_32768, SIZE_2147483646 = 4, 3, 7, 10


def params_size(camera, width_index, height_index):
    return u8(OP_PARAMS) + u8(camera) + u8(3) + u8(width_index) + u8(height_index)


def open_(camera):
    return u8(OP_OPEN) + u8(camera)


def close(camera):
    return u8(OP_CLOSE) + u8(camera)


def pattern(n):
    return bytes((i * 7 + 3) & 0xFF for i in range(n))


VENDOR_REPORTS = {
    "encoded_stream": params_open(1, 1, 320, 240, 2) + open_(1) + frame(CAM1, pattern(32)) +
    frame(CAM1, pattern(1)) + close(1),
    "h265_stream": params_open(0, 2, 480, 270, 0) + open_(0) + frame(CAM0, pattern(100)) + close(0),
    # 16 x 16 NV21: 384 bytes; the encoder thread converts and encodes it.
    "raw_nv21": params_open(0, 0, 16, 16, 2) + open_(0) + frame(CAM0, pattern(384)) + frame(CAM0, pattern(384)) +
    params_fps(0, 25) + close(0),
    "raw_rgb565": params_open(1, 0, 16, 16, 4) + open_(1) + frame(CAM1, pattern(512)) + close(1),
    "raw_frame_too_short": params_open(0, 0, 16, 16, 2) + open_(0) + frame(CAM0, pattern(100)) + close(0),
    # Refused sizes stay stored: frames then disagree with them or with the encoder.
    "sizes_disagree": params_open(0, 0, 16, 16, 4) + open_(0) + frame(CAM0, pattern(512)) +
    params_size(0, SIZE_32768, SIZE_32768) + frame(CAM0, pattern(512)) +
    params_size(0, SIZE_2147483646, SIZE_2147483646) + frame(CAM0, pattern(512)) +
    params_size(0, SIZE_64, SIZE_48) + frame(CAM0, pattern(6144)) + close(0),
    "raw_without_encoder_thread": open_(0) + frame(CAM0, pattern(64)) + close(0),
    "frames_refused": frame(NULL, pattern(4)) + frame_null_data(CAM0, 4) + frame_too_long(CAM1) +
    frame(BYTES, pattern(4), b"9"),
    "status_reports": status(vid(CAM0), 1) + status(vid(CAM1), 2) + status(vid(BYTES, b"7"), 1) +
    status(vid(CAM0), 3) + status(vid(NULL, 1), 1) + status(vid(BYTES, b"1\x00x"), 1),
    # The value is exactly valueLen bytes, without a terminator.
    "action_value_unterminated": action(vid(CAM0), 7, b"201"),
    "camera_state_actions": action(vid(CAM0), 7, b"4") + action(vid(CAM1), 7, b"205") +
    action(vid(CAM1), 7, b"208") + action(vid(CAM0), 5, b"201") + action(vid(CAM0), 7, b"0" * 17) +
    action(vid(NULL, 0), 7, b"201") + action(vid(CAM0), 7, b"", null_value=True) +
    action(vid(BYTES, b"0\x001"), 7, b"201"),
    "callbacks_changed": cmdcb(0, 1) + open_(0) + action(vid(CAM0), 7, b"4") + cmdcb(1, 2) + open_(1) +
    action(vid(CAM1), 7, b"201") + cmdcb(0, 0) + close(0) + close(1),
    "params_text": params_text(0, b'{"Width":16,"Height":16,"ColorFormat":2,"CodecType":0}') + open_(0) +
    frame(CAM0, pattern(384)) + params_text(0, b'{"Width":32,"CodecType":1}') + params_text(0, b'{"Fps":15}') +
    close(0),
}


def write(target, seeds):
    directory = os.path.join(CORPUS, target)
    shutil.rmtree(directory, ignore_errors=True)
    os.makedirs(directory)
    for name, data in seeds.items():
        with open(os.path.join(directory, name), "wb") as out:
            out.write(data)


def main():
    write("ability_text", ABILITY_TEXT)
    write("neg_params", NEG_PARAMS)
    write("color_convert", COLOR_CONVERT)
    write("vendor_reports", VENDOR_REPORTS)


if __name__ == "__main__":
    main()
