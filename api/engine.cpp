#include "api/engine.h"

#include "mgcp/mgcp.h"
#include "ptap/ptap.h"

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
  // The Wave session is added here when it comes; until then the start stops there, traced.
  return deps;
}

void SetCpDependenciesFactory(std::function<CpDependencies()> factory) {
  DependenciesFactory() = std::move(factory);
}

}  // namespace deskline::api
