#include "api/engine.h"

#include "mgcp/mgcp.h"
#include "ptap/ptap.h"
#include "voice/wave.h"

namespace deskline::api {
namespace {

std::function<CpDependencies()>& DependenciesFactory() {
  static std::function<CpDependencies()> factory;
  return factory;
}

}  // namespace

Engine& engine() {
  static Engine instance;
  return instance;
}

CpDependencies DefaultCpDependencies() {
  auto& factory = DependenciesFactory();
  if (factory) return factory();
  CpDependencies deps;
  deps.make_ptap = [] { return std::make_unique<CPtap>(); };
  deps.make_mgcp = [] { return std::make_unique<CMgcp>(); };
  deps.make_wave = [] { return std::make_unique<CWave>(); };
  return deps;
}

void SetCpDependenciesFactory(std::function<CpDependencies()> factory) {
  DependenciesFactory() = std::move(factory);
}

}  // namespace deskline::api
