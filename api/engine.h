// The process-wide singletons behind the exports, and the composition root that gives the call
// processor its real modules. Exports test a singleton and forward; nothing here takes a lock
// (initialize and uninitialize are called by one host thread, never at once).
#pragma once

#include <atomic>
#include <functional>

#include "core/cp.h"

namespace deskline {
class CTonePlayer;
}

namespace deskline::api {

struct Engine {
  std::atomic<CCp*> cp{nullptr};
  // Valid only while cp lives; cleared by uninitialize.
  std::atomic<IWave*> wave{nullptr};
  std::atomic<CTonePlayer*> tone_player{nullptr};
};

Engine& engine();

// The call processor's collaborators: the real PTAP, MGCP and Wave modules.
CpDependencies DefaultCpDependencies();

// Tests put fakes behind initialize. An empty function restores the default.
void SetCpDependenciesFactory(std::function<CpDependencies()> factory);

}  // namespace deskline::api
