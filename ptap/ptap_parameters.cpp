#include "ptap/ptap_parameters.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "support/tracer.h"

namespace deskline {
namespace {

std::uint16_t BigEndian16(std::span<const std::uint8_t> value) {
  return static_cast<std::uint16_t>((value[0] << 8) | value[1]);
}

// The container field of a one-byte delivery tag, or null for other tags.
std::int32_t* ByteField(PtapParameterContainer& c, std::uint8_t tag) {
  switch (tag) {
    case PTAP_TAG_RESULT: return &c.result_code;
    case PTAP_TAG_KEEPALIVE_TIMEOUT: return &c.keepalive_timeout;
    case PTAP_TAG_PARAM_1B: return &c.param_1b;
    case PTAP_TAG_PARAM_1C: return &c.param_1c;
    case PTAP_TAG_PARAM_1D: return &c.param_1d;
    case PTAP_TAG_PARAM_1E: return &c.param_1e;
    case PTAP_TAG_PARAM_18: return &c.param_18;
    case PTAP_TAG_PARAM_19: return &c.param_19;
    case PTAP_TAG_PARAM_24: return &c.param_24;
    case PTAP_TAG_PARAM_25: return &c.param_25;
    case PTAP_TAG_PARAM_26: return &c.param_26;
    default: return nullptr;
  }
}

}  // namespace

void PtapParameterStore::ResetParameters() {
  std::lock_guard lock(lock_);
  parameters_ = PtapParameters{};
}

bool PtapParameterStore::EnsureContainer() {
  std::lock_guard lock(lock_);
  if (container_) return true;
  container_.reset(new (std::nothrow) PtapParameterContainer{});
  parameter_count_ = 0;
  parameters_complete_ = false;
  return container_ != nullptr;
}

void PtapParameterStore::FreeContainer() {
  std::lock_guard lock(lock_);
  container_.reset();
  parameter_count_ = 0;
  parameters_complete_ = false;
}

bool PtapParameterStore::has_container() const {
  std::lock_guard lock(lock_);
  return container_ != nullptr;
}

bool PtapParameterStore::StoreElement(std::uint8_t tag, std::span<const std::uint8_t> value) {
  std::lock_guard lock(lock_);
  PtapParameters& p = parameters_;
  PtapParameterContainer* c = container_.get();
  switch (tag) {
    case PTAP_TAG_PARAM_0F:
      if (value.size() < 2) return false;
      p.param_0f = BigEndian16(value);
      if (c) c->param_0f = p.param_0f;
      return true;
    case PTAP_TAG_MGCP_PBX_PORT:
      if (value.size() < 2) return false;
      p.mgcp_pbx_port = BigEndian16(value);
      return true;
    case PTAP_TAG_MGCP_LOCAL_PORT:
      if (value.size() < 2) return false;
      p.mgcp_local_port = BigEndian16(value);
      return true;
    case PTAP_TAG_VALUE_5A:
      if (value.empty()) return false;
      p.value_5a.fill(0);
      std::memcpy(p.value_5a.data(), value.data(), std::min<std::size_t>(value.size(), 5));
      return true;
    default:
      break;
  }
  if (value.empty()) return false;
  const std::uint8_t byte = value[0];
  std::uint32_t* wide = nullptr;
  std::uint16_t* narrow = nullptr;
  switch (tag) {
    case PTAP_TAG_PARAM_18: wide = &p.param_18; break;
    case PTAP_TAG_PARAM_19: wide = &p.param_19; break;
    case PTAP_TAG_KEEPALIVE_TIMEOUT: wide = &p.keepalive_timeout; break;
    case PTAP_TAG_PARAM_1B: wide = &p.param_1b; break;
    case PTAP_TAG_PARAM_1C: wide = &p.param_1c; break;
    case PTAP_TAG_PARAM_1D: wide = &p.param_1d; break;
    case PTAP_TAG_PARAM_1E: wide = &p.param_1e; break;
    case PTAP_TAG_PARAM_23: narrow = &p.param_23; break;
    case PTAP_TAG_PARAM_24: narrow = &p.param_24; break;
    case PTAP_TAG_PARAM_25: narrow = &p.param_25; break;
    case PTAP_TAG_PARAM_26: narrow = &p.param_26; break;
    case PTAP_TAG_PTAP_PUNCH: narrow = &p.ptap_punch_interval; break;
    case PTAP_TAG_MGCP_PUNCH: narrow = &p.mgcp_punch_interval; break;
    case PTAP_TAG_RTP_PUNCH: narrow = &p.rtp_punch_interval; break;
    default: return false;
  }
  if (wide) *wide = byte;
  if (narrow) *narrow = byte;
  // The handler keeps the container's bytes unsigned; only the loader sign-extends.
  if (c && tag != PTAP_TAG_RESULT) {
    if (std::int32_t* field = ByteField(*c, tag)) *field = byte;
  }
  return true;
}

void PtapParameterStore::SetExtendedOk() {
  std::lock_guard lock(lock_);
  parameters_.extended_ok = 1;
}

void PtapParameterStore::SetExtendedValue(std::uint16_t value) {
  std::lock_guard lock(lock_);
  parameters_.extended_value = value;
}

void PtapParameterStore::SetPbxClass(std::uint16_t pbx_class) {
  std::lock_guard lock(lock_);
  parameters_.pbx_class = pbx_class;
}

int PtapParameterStore::LoadParameters(const PtapPacket& packet,
                                       const KeepaliveSink& on_keepalive) {
  std::uint32_t keepalive_seconds[kDeliveryElements];
  std::size_t keepalive_count = 0;
  {
    std::lock_guard lock(lock_);
    PtapParameterContainer* c = container_.get();
    if (c == nullptr) {
      DL_TRACE(TRACE_CRITICAL,
               "[PTAP :: CRITICAL ERROR] Object unavailable - PTAP parameter container");
      return 1;
    }
    *c = PtapParameterContainer{};
    for (const PtapElement& element : packet.elements) {
      if (parameter_count_ >= kDeliveryElements) break;
      const std::span<const std::uint8_t> value = packet.Value(element);
      if (element.tag == PTAP_TAG_PARAM_21) {
        const std::size_t n = std::min<std::size_t>(value.size(), 32);
        for (std::size_t i = 0; i < n; ++i) {
          c->param_21[i] = static_cast<std::int8_t>(value[i]);
        }
        ++parameter_count_;
      } else if (element.tag == PTAP_TAG_PARAM_0F) {
        if (value.size() < 2) continue;
        c->param_0f = BigEndian16(value);
        ++parameter_count_;
      } else if (std::int32_t* field = ByteField(*c, element.tag)) {
        if (value.empty()) continue;
        *field = static_cast<std::int8_t>(value[0]);
        ++parameter_count_;
        if (element.tag == PTAP_TAG_KEEPALIVE_TIMEOUT) {
          keepalive_seconds[keepalive_count++] = value[0];
        }
      }
    }
    if (parameter_count_ > 0) parameters_complete_ = true;
  }
  // Outside the lock: the sink traces and wakes the connection timer.
  if (on_keepalive) {
    for (std::size_t i = 0; i < keepalive_count; ++i) on_keepalive(keepalive_seconds[i]);
  }
  return 0;
}

int PtapParameterStore::GetParameter(std::uint32_t selector) {
  std::lock_guard lock(lock_);
  PtapParameters& p = parameters_;
  switch (selector) {
    case 0x1: return 0;  // nothing delivers it
    case 0x2: return static_cast<int>(p.param_18);
    case 0x4: return static_cast<int>(p.param_19);
    case 0x8: return static_cast<int>(p.keepalive_timeout);
    case 0x10: return static_cast<int>(p.param_1b);
    case 0x20: return static_cast<int>(p.param_1c);
    case 0x40: return static_cast<int>(p.param_1d);
    case 0x80: return static_cast<int>(p.param_1e);
    case 0x100: return p.param_0f;
    case PTAP_PARAM_MGCP_PBX_PORT: return p.mgcp_pbx_port;
    case PTAP_PARAM_MGCP_LOCAL_PORT: return p.mgcp_local_port;
    case 0x800: return p.param_23;
    case 0x1000: return p.param_24;
    case 0x2000: return p.param_25;
    case 0x4000: return p.param_26;
    case 0x8000: return p.extended_value;
    case PTAP_PARAM_PBX_CLASS: return p.pbx_class;
    case 0x20000: return p.extended_ok;
    case PTAP_PARAM_MGCP_PUNCH_INTERVAL:
      if (p.mgcp_punch_interval > 255) {
        p.mgcp_punch_interval = 0;
        DL_TRACE(TRACE_ERROR, "[PTAP] port punching data is invalid: MGCP");
        return 0;
      }
      return p.mgcp_punch_interval;
    case PTAP_PARAM_RTP_PUNCH_INTERVAL:
      if (p.rtp_punch_interval > 255) {
        p.rtp_punch_interval = 0;
        DL_TRACE(TRACE_ERROR, "[PTAP] port punching data is invalid: RTP");
        return 0;
      }
      return p.rtp_punch_interval;
    default:
      return 0;
  }
}

PtapParameters PtapParameterStore::Snapshot() const {
  std::lock_guard lock(lock_);
  return parameters_;
}

int PtapParameterStore::CopyContainer(PtapParameterContainer* out) const {
  std::lock_guard lock(lock_);
  if (out == nullptr || !container_) return 1;
  *out = *container_;
  return 0;
}

unsigned PtapParameterStore::parameter_count() const {
  std::lock_guard lock(lock_);
  return parameter_count_;
}

}  // namespace deskline
