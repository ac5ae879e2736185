#include "platform/wave/wav_file.h"

#include <fcntl.h>
#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>

namespace deskline::platform {
namespace {

// Random access to the bytes of a WAV, whatever holds them. Reads never go past Size().
class ByteSource {
 public:
  virtual ~ByteSource() = default;
  virtual std::uint64_t Size() const = 0;
  // Reads exactly `count` bytes at `offset`; false if they are not all there.
  virtual bool ReadAt(std::uint64_t offset, void* buffer, std::size_t count) const = 0;
};

class MemorySource final : public ByteSource {
 public:
  explicit MemorySource(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}
  std::uint64_t Size() const override { return bytes_.size(); }
  bool ReadAt(std::uint64_t offset, void* buffer, std::size_t count) const override {
    if (offset > bytes_.size() || count > bytes_.size() - offset) return false;
    if (count > 0) std::memcpy(buffer, bytes_.data() + offset, count);
    return true;
  }

 private:
  std::span<const std::uint8_t> bytes_;
};

class FdSource final : public ByteSource {
 public:
  FdSource(int fd, std::uint64_t size) : fd_(fd), size_(size) {}
  std::uint64_t Size() const override { return size_; }
  bool ReadAt(std::uint64_t offset, void* buffer, std::size_t count) const override {
    if (offset > size_ || count > size_ - offset) return false;
    auto* out = static_cast<char*>(buffer);
    while (count > 0) {
      const ssize_t got = ::pread(fd_, out, count, static_cast<off_t>(offset));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return false;
      out += got;
      offset += static_cast<std::uint64_t>(got);
      count -= static_cast<std::size_t>(got);
    }
    return true;
  }

 private:
  int fd_;
  std::uint64_t size_;
};

std::uint32_t Le32(const std::uint8_t* p) {
  return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
         (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}

// A file with more chunks than this before its "data" is not a sound file.
constexpr int kMaxChunks = 1024;

// Walks the RIFF chunks with bounded reads: RIFF/WAVE, a "fmt " of at least 16 bytes that is
// all there, and a "data" chunk whose declared size is all there. libsndfile itself opens a
// truncated file and quietly reports fewer frames, so this is where truncation is caught.
bool ChunksAreWhole(const ByteSource& source) {
  std::uint8_t header[12];
  if (!source.ReadAt(0, header, sizeof header)) return false;
  if (std::memcmp(header, "RIFF", 4) != 0 || std::memcmp(header + 8, "WAVE", 4) != 0) {
    return false;
  }
  const std::uint64_t size = source.Size();
  std::uint64_t offset = 12;
  bool have_fmt = false;
  for (int chunk = 0; chunk < kMaxChunks; ++chunk) {
    std::uint8_t head[8];
    if (!source.ReadAt(offset, head, sizeof head)) return false;  // no "data" before the end
    const std::uint64_t body = offset + 8;
    const std::uint64_t length = Le32(head + 4);
    if (std::memcmp(head, "fmt ", 4) == 0) {
      if (length < 16 || length > size - body) return false;
      have_fmt = true;
    } else if (std::memcmp(head, "data", 4) == 0) {
      return have_fmt && length <= size - body;
    }
    offset = body + length + (length & 1);  // chunks are padded to an even size
  }
  return false;
}

// libsndfile over a span of memory.
struct VirtualFile {
  std::span<const std::uint8_t> bytes;
  sf_count_t position = 0;
};

sf_count_t VirtualLength(void* user) {
  return static_cast<sf_count_t>(static_cast<VirtualFile*>(user)->bytes.size());
}

sf_count_t VirtualSeek(sf_count_t offset, int whence, void* user) {
  auto* file = static_cast<VirtualFile*>(user);
  const auto length = static_cast<sf_count_t>(file->bytes.size());
  sf_count_t base = 0;
  switch (whence) {
    case SEEK_SET:
      base = 0;
      break;
    case SEEK_CUR:
      base = file->position;
      break;
    case SEEK_END:
      base = length;
      break;
    default:
      return -1;
  }
  // Keep the sum in range; a position past the end simply reads nothing.
  if (offset < -base || offset > std::numeric_limits<sf_count_t>::max() - base) return -1;
  file->position = base + offset;
  return file->position;
}

sf_count_t VirtualRead(void* buffer, sf_count_t count, void* user) {
  auto* file = static_cast<VirtualFile*>(user);
  const auto length = static_cast<sf_count_t>(file->bytes.size());
  if (count <= 0 || file->position >= length) return 0;
  const sf_count_t n = std::min(count, length - file->position);
  std::memcpy(buffer, file->bytes.data() + file->position, static_cast<std::size_t>(n));
  file->position += n;
  return n;
}

sf_count_t VirtualWrite(const void*, sf_count_t, void*) { return 0; }

sf_count_t VirtualTell(void* user) { return static_cast<VirtualFile*>(user)->position; }

struct SndfileCloser {
  void operator()(SNDFILE* file) const { sf_close(file); }
};
using SndfilePtr = std::unique_ptr<SNDFILE, SndfileCloser>;

bool IsFloatData(int format) {
  const int sub = format & SF_FORMAT_SUBMASK;
  return sub == SF_FORMAT_FLOAT || sub == SF_FORMAT_DOUBLE;
}

// Decodes every frame of an opened file to 16-bit little-endian samples.
bool Decode(SNDFILE* file, const SF_INFO& info, WavSound* out) {
  const int major = info.format & SF_FORMAT_TYPEMASK;
  if (major != SF_FORMAT_WAV && major != SF_FORMAT_WAVEX) return false;
  if (info.channels <= 0 || info.channels > std::numeric_limits<std::uint16_t>::max() / 2 ||
      info.samplerate <= 0 || info.frames <= 0) {
    return false;
  }
  const auto channels = static_cast<std::uint64_t>(info.channels);
  const auto frames = static_cast<std::uint64_t>(info.frames);
  if (frames > kMaxWavDataBytes / (2 * channels)) return false;
  const std::size_t samples = static_cast<std::size_t>(frames * channels);

  std::vector<std::int16_t> pcm(samples);
  sf_count_t got = 0;
  if (IsFloatData(info.format)) {
    // libsndfile's own float-to-short scaling normalises to the file's peak, which would
    // change the level; convert here so that a -12 dBFS file stays -12 dBFS.
    std::vector<float> floats(samples);
    got = sf_readf_float(file, floats.data(), info.frames);
    for (std::size_t i = 0; i < samples; ++i) {
      const float v = std::isfinite(floats[i]) ? std::clamp(floats[i], -1.0f, 1.0f) : 0.0f;
      pcm[i] = static_cast<std::int16_t>(std::lrint(v * 32767.0f));
    }
  } else {
    got = sf_readf_short(file, pcm.data(), info.frames);
  }
  if (got != info.frames) return false;

  WavSound sound;
  sound.format.format_tag = 1;
  sound.format.channels = static_cast<std::uint16_t>(info.channels);
  sound.format.samples_per_sec = static_cast<std::uint32_t>(info.samplerate);
  sound.format.block_align = static_cast<std::uint16_t>(2 * info.channels);
  sound.format.avg_bytes_per_sec = sound.format.samples_per_sec * sound.format.block_align;
  sound.format.bits_per_sample = 16;
  sound.format.cb_size = 0;
  sound.data.resize(samples * 2);
  for (std::size_t i = 0; i < samples; ++i) {
    const auto v = static_cast<std::uint16_t>(pcm[i]);
    sound.data[2 * i] = static_cast<std::uint8_t>(v & 0xFF);
    sound.data[2 * i + 1] = static_cast<std::uint8_t>(v >> 8);
  }
  *out = std::move(sound);
  return true;
}

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

}  // namespace

bool ReadWavFile(const std::string& path, WavSound* out) {
  if (out == nullptr) return false;
  // Non-blocking so that a FIFO cannot hang the open; only regular files are read.
  Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (fd.get() < 0) return false;
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size <= 0) return false;
  const int flags = ::fcntl(fd.get(), F_GETFL);
  if (flags < 0 || ::fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK) != 0) return false;

  FdSource source(fd.get(), static_cast<std::uint64_t>(st.st_size));
  if (!ChunksAreWhole(source)) return false;

  // The same descriptor, so that what was checked is what is decoded.
  if (::lseek(fd.get(), 0, SEEK_SET) != 0) return false;
  SF_INFO info{};
  SndfilePtr file(sf_open_fd(fd.get(), SFM_READ, &info, SF_FALSE));
  if (!file) return false;
  return Decode(file.get(), info, out);
}

bool ReadWavMemory(std::span<const std::uint8_t> bytes, WavSound* out) {
  if (out == nullptr || bytes.empty()) return false;
  if (!ChunksAreWhole(MemorySource(bytes))) return false;

  VirtualFile virtual_file{bytes, 0};
  SF_VIRTUAL_IO io{VirtualLength, VirtualSeek, VirtualRead, VirtualWrite, VirtualTell};
  SF_INFO info{};
  SndfilePtr file(sf_open_virtual(&io, SFM_READ, &info, &virtual_file));
  if (!file) return false;
  return Decode(file.get(), info, out);
}

bool WriteWavFile(const std::string& path, const WaveFormat& format,
                  std::span<const std::uint8_t> data) {
  if (format.format_tag != 1 || format.bits_per_sample != 16 || format.channels == 0 ||
      format.samples_per_sec == 0 ||
      format.samples_per_sec > static_cast<std::uint32_t>(std::numeric_limits<int>::max())) {
    return false;
  }
  const std::size_t frame_bytes = 2u * format.channels;
  if (data.size() % frame_bytes != 0) return false;

  SF_INFO info{};
  info.samplerate = static_cast<int>(format.samples_per_sec);
  info.channels = format.channels;
  info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
  SndfilePtr file(sf_open(path.c_str(), SFM_WRITE, &info));
  if (!file) return false;

  const std::size_t samples = data.size() / 2;
  std::vector<std::int16_t> pcm(samples);
  for (std::size_t i = 0; i < samples; ++i) {
    pcm[i] = static_cast<std::int16_t>(static_cast<std::uint16_t>(
        data[2 * i] | (static_cast<std::uint16_t>(data[2 * i + 1]) << 8)));
  }
  const auto frames = static_cast<sf_count_t>(samples / format.channels);
  if (frames > 0 && sf_writef_short(file.get(), pcm.data(), frames) != frames) return false;
  return sf_close(file.release()) == 0;
}

}  // namespace deskline::platform
