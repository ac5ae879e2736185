// The common life of the engine's modules.
#pragma once

namespace deskline {

class CModule {
 public:
  virtual ~CModule() = default;
  // 0 on success, 1 on failure, unless the module says otherwise.
  virtual int Start() = 0;
  // Always 0. Safe to call more than once and on a half-started module.
  virtual int Shutdown() = 0;
};

}  // namespace deskline
