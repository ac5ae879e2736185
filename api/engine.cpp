#include "api/engine.h"

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
  // The protocol and media modules are added here as they come; a missing factory makes the
  // start fail cleanly at that module with its trace.
  return deps;
}

void SetCpDependenciesFactory(std::function<CpDependencies()> factory) {
  DependenciesFactory() = std::move(factory);
}

}  // namespace deskline::api
