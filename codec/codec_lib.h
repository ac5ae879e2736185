// The codec library: a byte-stream face on frame-based codecs. A caller hands in any amount
// of input; the library cuts it into the codec's frames, keeps what does not fill a frame for
// the next call, and reports what it produced. Codecs sit in a table of 30 rows of operations;
// row 16 is G.729 (G729Codec), the others are empty.
//
// Results: 0 for success, a negative kCodecLib... value for a failure of the library, or
// whatever a row's operation returned (1 for row 16).
//
// Thread rules: a handle belongs to one thread at a time. The table is set up once, under a
// lock, by the first codecLibOpen (or CodecMngInit), and only read after that.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace deskline {

inline constexpr std::int32_t kCodecTableRows = 30;
inline constexpr std::int32_t kCodecG729 = 16;
inline constexpr std::uint32_t kCodecTableReady = 0xDEF100;
inline constexpr std::int32_t kCodecEncode = 0;
inline constexpr std::int32_t kCodecDecode = 1;
// The most input, with what is left over, that one call takes: the left-over area's size.
inline constexpr std::size_t kCodecLeftOverBytes = 16384;
inline constexpr std::size_t kCodecWorkBytes = 32768;

inline constexpr int kCodecLibOutOfRoom = -10;          // decoding stopped; what was done stands
inline constexpr int kCodecLibNoCodec = -100;           // no such row, or an empty one
inline constexpr int kCodecLibNullArgument = -105;      // a null argument
inline constexpr int kCodecLibNoMemory = -106;          // a handle could not be allocated
inline constexpr int kCodecLibNoEncodeRoom = -110;      // no room for one encoded frame
inline constexpr int kCodecLibNoDecodeRoom = -210;      // no room for one decoded frame
inline constexpr int kCodecLibInputTooLarge = -211;     // input and left-over above 16,384 bytes

// What a row's `info` tells of its codec for one direction.
struct CodecInfo {
  char name[16] = {};       // "G729"
  char rate[16] = {};       // "8KBPS"
  char transport[16] = {};  // "RTP"
  char mimeType[32] = {};   // "audio/G729"
  std::int32_t formatNumber = 0;
  std::int32_t sampleRate = 0;
  std::int32_t channels = 0;
  std::int32_t inBytesPerSecond = 0;
  std::int32_t inFrameBytes = 0;
  std::int32_t inBitsPerSample = 0;
  std::int32_t outFrameBytes = 0;
  std::int32_t outBytesPerSecond = 0;
  std::int32_t frameMs = 0;
};

struct CodecHandle;

// One row: the operations of one codec. Each receives the handle it works for.
struct CodecTableEntry {
  // Makes the codec object for the handle's direction into `codec`. 0, or 1.
  int (*open)(CodecHandle* handle) = nullptr;
  // Destroys it. 0, or 1 for a bad direction.
  int (*close)(CodecHandle* handle) = nullptr;
  int (*reset)(CodecHandle* handle) = nullptr;  // close, then open
  // One frame from `in` into `out`; `*used` the bytes written.
  int (*encode)(CodecHandle* handle, const std::int16_t* in, std::uint8_t* out,
                std::int32_t* used) = nullptr;
  // One frame from the `inBytes` at `in`; `*used` the bytes taken, `*produced` the samples.
  int (*decode)(CodecHandle* handle, const std::uint8_t* in, std::int32_t inBytes,
                std::int32_t* used, std::int16_t* out, std::int32_t* produced) = nullptr;
  void (*reserved)() = nullptr;  // stays empty
  // Fills in `*info` for `direction`. 0, or 1 for a bad direction.
  int (*info)(std::int32_t direction, CodecInfo* info, void* params) = nullptr;
};

struct CodecHandle {
  void* codec = nullptr;      // what the row's `open` made
  std::int32_t index = 0;     // the table row
  std::int32_t direction = 0; // kCodecEncode or kCodecDecode
  // Input not yet used: samples when encoding, bytes when decoding.
  std::unique_ptr<std::uint8_t[]> leftOver;
  std::int32_t InputLeftOverSize = 0;  // bytes in leftOver
  // Left-over and new input joined; made once with the handle rather than on every call.
  std::unique_ptr<std::int16_t[]> work;
};

// Clears the 30 rows, fills row 16 and marks the table ready. Once ready, it is left as it
// is. `debug` above 3 prints a line on the standard output.
void CodecMngInit(std::int16_t debug);

// The row at `index` once the table is set up, or null when out of range.
const CodecTableEntry* CodecTableRow(std::int32_t index);

// Makes a handle for row `index` and `direction` into `*handle`, setting the table up first
// if need be. 0; the row's `open` result when it failed (the handle is then freed and
// `*handle` null); kCodecLibNoCodec for an empty or unknown row; kCodecLibNullArgument for a
// null `handle`; kCodecLibNoMemory.
int codecLibOpen(CodecHandle** handle, std::int32_t index, std::int32_t direction,
                 std::int16_t debug);

// Closes the row's codec and frees the handle. 0, or kCodecLibNullArgument for null.
int codecLibClose(CodecHandle* handle, std::int16_t debug);

// Encodes `*inSamples` samples, with those left over from earlier calls, into frames in `out`,
// which has room for `*outBytes` bytes; `*outBytes` receives the bytes written. Whole frames
// only: the rest is kept for the next call. 0, a row's result (the input is then not kept),
// kCodecLibNullArgument, kCodecLibNoCodec, kCodecLibNoEncodeRoom or kCodecLibInputTooLarge.
// `params` is handed to the row's `info`.
int codecLibEncode(CodecHandle* handle, const std::int16_t* in, std::uint32_t* inSamples,
                   std::uint8_t* out, std::uint32_t* outBytes, void* params, std::int16_t debug);

// Decodes `*inBytes` bytes, after those left over from earlier calls, into `out`, which has
// room for `*outSamples` samples; `*outSamples` receives the samples written. A rest shorter
// than a frame is kept for the next call. 0, a row's result, kCodecLibOutOfRoom,
// kCodecLibNullArgument, kCodecLibNoCodec, kCodecLibNoDecodeRoom or kCodecLibInputTooLarge.
int codecLibDecode(CodecHandle* handle, const std::uint8_t* in, std::uint32_t* inBytes,
                   std::int16_t* out, std::uint32_t* outSamples, void* params,
                   std::int16_t debug);

// The library's debug output: formats one line onto the standard output.
void codecLib_printf(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace deskline
