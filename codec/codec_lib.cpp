#include "codec/codec_lib.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <span>

#include "codec/g729_codec.h"

namespace deskline {
namespace {

std::mutex table_lock;
std::atomic<std::uint32_t> table_word{0};
CodecTableEntry codec_table[kCodecTableRows];

// ---- Row 16: G.729 -------------------------------------------------------------------------

G729Codec* G729Of(CodecHandle* handle) { return static_cast<G729Codec*>(handle->codec); }

int G729Open(CodecHandle* handle) {
  std::unique_ptr<G729Codec> codec = G729Codec::Make(handle->direction);
  if (!codec) return 1;
  handle->codec = codec.release();
  return 0;
}

int G729Close(CodecHandle* handle) {
  delete G729Of(handle);
  handle->codec = nullptr;
  return handle->direction == kCodecEncode || handle->direction == kCodecDecode ? 0 : 1;
}

int G729Reset(CodecHandle* handle) {
  G729Close(handle);
  return G729Open(handle);
}

int G729Encode(CodecHandle* handle, const std::int16_t* in, std::uint8_t* out,
               std::int32_t* used) {
  *used = 0;
  if (handle->direction != kCodecEncode || !handle->codec) return 1;
  if (!in) return 0;
  if (G729Of(handle)->Encode(std::span<const std::int16_t, G729Codec::kFrameSamples>(
                                 in, G729Codec::kFrameSamples),
                             std::span<std::uint8_t, G729Codec::kFrameBytes>(
                                 out, G729Codec::kFrameBytes)) != 0) {
    return 1;
  }
  *used = G729Codec::kFrameBytes;
  return 0;
}

int G729Decode(CodecHandle* handle, const std::uint8_t* in, std::int32_t inBytes,
               std::int32_t* used, std::int16_t* out, std::int32_t* produced) {
  *used = 0;
  *produced = 0;
  if (handle->direction != kCodecDecode || !handle->codec) return 1;
  if (!in || inBytes < static_cast<std::int32_t>(G729Codec::kFrameBytes)) return 0;
  // Every 10 bytes are taken as a voice frame at 8 kbit/s; the content is not tested.
  G729Of(handle)->Decode(
      std::span<const std::uint8_t, G729Codec::kFrameBytes>(in, G729Codec::kFrameBytes),
      std::span<std::int16_t, G729Codec::kFrameSamples>(out, G729Codec::kFrameSamples));
  *used = G729Codec::kFrameBytes;
  *produced = G729Codec::kFrameSamples;
  return 0;
}

void CopyText(char* to, std::size_t size, const char* text) {
  std::snprintf(to, size, "%s", text);
}

int G729Info(std::int32_t direction, CodecInfo* info, void* /*params*/) {
  if (direction != kCodecEncode && direction != kCodecDecode) return 1;
  *info = CodecInfo{};
  CopyText(info->name, sizeof(info->name), "G729");
  CopyText(info->rate, sizeof(info->rate), "8KBPS");
  CopyText(info->transport, sizeof(info->transport), "RTP");
  CopyText(info->mimeType, sizeof(info->mimeType), "audio/G729");
  info->formatNumber = 307;
  info->sampleRate = 8000;
  info->channels = 1;
  info->frameMs = 10;
  const bool encoding = direction == kCodecEncode;
  info->inBytesPerSecond = encoding ? 16000 : 1000;
  info->inFrameBytes = encoding ? 160 : 10;
  info->inBitsPerSample = encoding ? 16 : 0;
  info->outFrameBytes = encoding ? 10 : 160;
  info->outBytesPerSecond = encoding ? 1000 : 16000;
  return 0;
}

// The row of an open handle, once the table is ready; null otherwise.
const CodecTableEntry* RowOf(const CodecHandle* handle) {
  return CodecTableRow(handle->index);
}

}  // namespace

void codecLib_printf(const char* format, ...) {
  char line[256];
  va_list args;
  va_start(args, format);
  std::vsnprintf(line, sizeof(line), format, args);
  va_end(args);
  std::fputs(line, stdout);
}

void CodecMngInit(std::int16_t debug) {
  if (debug > 3) codecLib_printf("In CodecMngInit\n");
  std::lock_guard lock(table_lock);
  // Filled once: a handle may be reading its row on another thread.
  if (table_word.load(std::memory_order_acquire) == kCodecTableReady) return;
  for (CodecTableEntry& row : codec_table) row = CodecTableEntry{};
  CodecTableEntry& g729 = codec_table[kCodecG729];
  g729.open = G729Open;
  g729.close = G729Close;
  g729.reset = G729Reset;
  g729.encode = G729Encode;
  g729.decode = G729Decode;
  g729.info = G729Info;
  table_word.store(kCodecTableReady, std::memory_order_release);
}

const CodecTableEntry* CodecTableRow(std::int32_t index) {
  if (index < 0 || index >= kCodecTableRows) return nullptr;
  if (table_word.load(std::memory_order_acquire) != kCodecTableReady) return nullptr;
  return &codec_table[index];
}

int codecLibOpen(CodecHandle** handle, std::int32_t index, std::int32_t direction,
                 std::int16_t debug) {
  if (debug > 3) codecLib_printf("In codecLibOpen\n");
  if (!handle) return kCodecLibNullArgument;
  *handle = nullptr;
  if (table_word.load(std::memory_order_acquire) != kCodecTableReady) CodecMngInit(debug);
  const CodecTableEntry* row = CodecTableRow(index);
  if (!row || !row->open) return kCodecLibNoCodec;

  std::unique_ptr<CodecHandle> made(new (std::nothrow) CodecHandle());
  if (!made) return kCodecLibNoMemory;
  made->leftOver.reset(new (std::nothrow) std::uint8_t[kCodecLeftOverBytes]());
  made->work.reset(new (std::nothrow) std::int16_t[kCodecWorkBytes / 2]());
  if (!made->leftOver || !made->work) return kCodecLibNoMemory;
  made->index = index;
  made->direction = direction;
  // A failed open leaves nothing behind: there is no handle for the caller to close.
  const int result = row->open(made.get());
  if (result != 0) return result;
  *handle = made.release();
  if (debug > 3) codecLib_printf("codecLibOpen:pointer=%p\n", static_cast<void*>(*handle));
  return 0;
}

int codecLibClose(CodecHandle* handle, std::int16_t debug) {
  if (debug > 3) codecLib_printf("In codecLibClose\n");
  if (!handle) return kCodecLibNullArgument;
  const CodecTableEntry* row = RowOf(handle);
  if (row && row->close) row->close(handle);
  delete handle;
  return 0;
}

int codecLibEncode(CodecHandle* handle, const std::int16_t* in, std::uint32_t* inSamples,
                   std::uint8_t* out, std::uint32_t* outBytes, void* params, std::int16_t debug) {
  if (debug > 3) codecLib_printf("In codecLibEncode\n");
  if (!handle || !inSamples || !outBytes || !out || (!in && *inSamples > 0)) {
    if (debug > 3) codecLib_printf("codecLibEncode: NULL parameters\n");
    if (outBytes) *outBytes = 0;
    if (inSamples) *inSamples = 0;
    return kCodecLibNullArgument;
  }
  const CodecTableEntry* row = RowOf(handle);
  if (!row || !row->encode || !row->info) return kCodecLibNoCodec;
  // The frame sizes are the encoding ones whatever the handle is: a decoding handle reaches
  // the row's encode, which refuses it.
  CodecInfo info;
  const int info_result = row->info(kCodecEncode, &info, params);
  if (info_result != 0) return info_result;
  const std::uint32_t InSamplesPerFrame = static_cast<std::uint32_t>(info.inFrameBytes / 2);
  const std::uint32_t OutBytesPerFrame = static_cast<std::uint32_t>(info.outFrameBytes);
  if (debug > 3) {
    codecLib_printf("codecLibEncode:InSamplesPerFrame=%d OutBytesPerFrame=%d\n",
                    static_cast<int>(InSamplesPerFrame), static_cast<int>(OutBytesPerFrame));
  }
  if (InSamplesPerFrame == 0) return kCodecLibNoCodec;

  // Whatever is not encoded now must fit the left-over area.
  const std::uint64_t held_bytes = static_cast<std::uint64_t>(handle->InputLeftOverSize);
  if (std::uint64_t{*inSamples} * 2 + held_bytes > kCodecLeftOverBytes) {
    return kCodecLibInputTooLarge;
  }
  const std::uint32_t held = static_cast<std::uint32_t>(held_bytes / 2);
  const std::uint32_t total = *inSamples + held;
  if (total < InSamplesPerFrame) {
    if (debug > 3) codecLib_printf("In codecLibEncode:not enough data\n");
    if (*inSamples > 0) {
      std::memcpy(handle->leftOver.get() + held_bytes, in, std::size_t{*inSamples} * 2);
    }
    handle->InputLeftOverSize = static_cast<std::int32_t>(total * 2);
    *outBytes = 0;
    return 0;
  }
  if (debug > 3) codecLib_printf("In codecLibEncode:enough data\n");
  if (OutBytesPerFrame > *outBytes) return kCodecLibNoEncodeRoom;

  std::int16_t* work = handle->work.get();
  std::memcpy(work, handle->leftOver.get(), held_bytes);
  if (*inSamples > 0) std::memcpy(work + held, in, std::size_t{*inSamples} * 2);
  if (debug > 3) {
    codecLib_printf("codecLibEncode:InsideInBufSz=%d TmpInputSz=%d\n",
                    static_cast<int>(held_bytes), static_cast<int>(total * 2));
  }

  std::uint32_t consumed = 0;
  std::uint32_t written = 0;
  int result = 0;
  while (total - consumed >= InSamplesPerFrame && written + OutBytesPerFrame <= *outBytes) {
    std::int32_t used = 0;
    const int r = row->encode(handle, work + consumed, out + written, &used);
    if (r != 0) result = r;
    if (used > 0) written += std::min(static_cast<std::uint32_t>(used), OutBytesPerFrame);
    consumed += InSamplesPerFrame;
  }
  if (debug > 3) {
    codecLib_printf("In codecLibEncode:2SumOutputSz=%d TmpInputSz = %d\n",
                    static_cast<int>(written), static_cast<int>((total - consumed) * 2));
  }
  *outBytes = written;
  if (result != 0) return result;

  const std::uint32_t rest = total - consumed;
  std::memcpy(handle->leftOver.get(), work + consumed, std::size_t{rest} * 2);
  handle->InputLeftOverSize = static_cast<std::int32_t>(rest * 2);
  if (debug > 3) {
    codecLib_printf("In codecLibEncode:InputLeftOverSize = %d\n", handle->InputLeftOverSize);
  }
  return 0;
}

int codecLibDecode(CodecHandle* handle, const std::uint8_t* in, std::uint32_t* inBytes,
                   std::int16_t* out, std::uint32_t* outSamples, void* params,
                   std::int16_t debug) {
  if (debug > 3) codecLib_printf("In codecLibDecode\n");
  if (!handle || !inBytes || !outSamples || !out || (!in && *inBytes > 0)) {
    if (debug > 3) codecLib_printf("codecLibDecode: NULL parameters\n");
    if (outSamples) *outSamples = 0;
    if (inBytes) *inBytes = 0;
    return kCodecLibNullArgument;
  }
  const CodecTableEntry* row = RowOf(handle);
  if (!row || !row->decode || !row->info) return kCodecLibNoCodec;
  CodecInfo info;
  const int info_result = row->info(kCodecDecode, &info, params);
  if (info_result != 0) return info_result;
  const std::uint32_t frame_samples = static_cast<std::uint32_t>(info.outFrameBytes / 2);

  const std::uint64_t held = static_cast<std::uint64_t>(handle->InputLeftOverSize);
  if (std::uint64_t{*inBytes} + held > kCodecLeftOverBytes) return kCodecLibInputTooLarge;
  if (frame_samples > *outSamples) return kCodecLibNoDecodeRoom;
  if (debug > 3) codecLib_printf("codecLibDecode:enough data\n");

  // Bytes are read through the work area's storage; a char type may view any object.
  auto* work = reinterpret_cast<std::uint8_t*>(handle->work.get());
  std::memcpy(work, handle->leftOver.get(), held);
  if (*inBytes > 0) std::memcpy(work + held, in, *inBytes);
  const std::uint32_t total = static_cast<std::uint32_t>(held + *inBytes);
  if (debug > 3) {
    codecLib_printf("codecLibDecode:InsideInBufSz=%d TmpInputSz=%d\n", static_cast<int>(held),
                    static_cast<int>(total));
  }

  std::uint32_t position = 0;
  std::uint32_t written = 0;
  int result = 0;
  std::int32_t used = 0;
  do {
    if (written + frame_samples > *outSamples) {
      result = kCodecLibOutOfRoom;
      break;
    }
    std::int32_t produced = 0;
    used = 0;
    const int r = row->decode(handle, work + position, static_cast<std::int32_t>(total - position),
                              &used, out + written, &produced);
    if (r != 0) result = r;
    // A row never takes more than it was given, nor writes more than a frame.
    if (used < 0) used = 0;
    position += std::min(static_cast<std::uint32_t>(used), total - position);
    if (produced > 0) written += std::min(static_cast<std::uint32_t>(produced), frame_samples);
    if (debug > 3) {
      codecLib_printf("codecLibDecode:2SumOutputSz=%d TmpInputSz = %d inputUsed=%d\n",
                      static_cast<int>(written), static_cast<int>(total - position),
                      static_cast<int>(used));
    }
  } while (total - position >= 1 && used > 0);

  const std::uint32_t rest = total - position;
  std::memmove(handle->leftOver.get(), work + position, rest);
  handle->InputLeftOverSize = static_cast<std::int32_t>(rest);
  *outSamples = written;
  if (debug > 3) {
    codecLib_printf("codecLibDecode:InputLeftOverSize = %d\n", handle->InputLeftOverSize);
  }
  return result;
}

}  // namespace deskline
