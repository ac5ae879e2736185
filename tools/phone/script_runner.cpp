#include "tools/phone/script_runner.h"

#include <algorithm>
#include <cstdio>

namespace deskline::phone {
namespace {

std::string KeyText(std::uint32_t key) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%04x", key);
  return text;
}

StepOutcome Result(std::int32_t result, const std::string& what) {
  if (result == 0) return {StepOutcome::Kind::kOk, what};
  return {StepOutcome::Kind::kFailed, what + " refused by the library (" + std::to_string(result) + ")"};
}

}  // namespace

template <typename Predicate>
StepOutcome ScriptRunner::WaitUntil(const Command& command, const char* what, Predicate done) {
  const std::int64_t start_ms = clock_.SteadyMs();
  for (;;) {
    if (done()) return {StepOutcome::Kind::kOk, std::string(what) + " seen"};
    if (stop_.IsSet()) return {StepOutcome::Kind::kStopped, command.source + " interrupted"};
    if (view_.connection_lost()) {
      return {StepOutcome::Kind::kFailed, command.source + ": the connection to the PBX is lost"};
    }
    const std::int64_t waited_ms = clock_.SteadyMs() - start_ms;
    if (waited_ms >= command.duration.count()) {
      return {StepOutcome::Kind::kFailed,
              command.source + ": no " + what + " within " + std::to_string(command.duration.count()) + " ms"};
    }
    const auto step = std::min<std::int64_t>(kPollInterval.count(), command.duration.count() - waited_ms);
    clock_.WaitFor(stop_, std::chrono::milliseconds(step));
  }
}

StepOutcome ScriptRunner::Run(const Command& command) {
  switch (command.kind) {
    case CommandKind::kNone:
    case CommandKind::kStatus:
    case CommandKind::kDevices:
    case CommandKind::kHelp:
      return {};
    case CommandKind::kQuit:
      return {StepOutcome::Kind::kQuit, {}};
    case CommandKind::kKey:
      return Result(actions_.PutKey(command.key), "key " + KeyText(command.key));
    case CommandKind::kResume: {
      const std::uint32_t key = view_.ResumeKey();
      return Result(actions_.PutKey(key), "resume: key " + KeyText(key));
    }
    case CommandKind::kFormat: {
      const std::optional<std::string> formatted = actions_.FormatNumber(command.text);
      if (!formatted) return {StepOutcome::Kind::kFailed, "format " + command.text + ": refused by the library"};
      return {StepOutcome::Kind::kOk, "format " + command.text + " -> '" + *formatted + "'"};
    }
    case CommandKind::kDial: {
      if (!command.format) return Result(actions_.MakeCall(command.text), "dial " + command.text);
      const std::optional<std::string> formatted = actions_.FormatNumber(command.text);
      if (!formatted) return {StepOutcome::Kind::kFailed, "dial " + command.text + ": the formatter refused it"};
      const std::string what = "dial " + command.text + " formatted to " + *formatted;
      if (!IsDialString(*formatted)) return {StepOutcome::Kind::kFailed, what + ", which is not a dial string"};
      return Result(actions_.MakeCall(*formatted), what);
    }
    case CommandKind::kSendError:
      return Result(actions_.SendError(command.number), "error " + std::to_string(command.number));
    case CommandKind::kWait:
      if (clock_.WaitFor(stop_, command.duration)) {
        return {StepOutcome::Kind::kStopped, command.source + " interrupted"};
      }
      return {};
    case CommandKind::kWaitRing:
      return WaitUntil(command, "ring", [&] {
        const int rings = view_.counts().rings;
        if (rings <= seen_.rings) return false;
        seen_.rings = rings;
        return true;
      });
    case CommandKind::kWaitMedia:
      return WaitUntil(command, "voice path", [&] {
        const int opened = view_.counts().media_opened;
        if (opened <= seen_.media_opened) return false;
        seen_.media_opened = opened;
        return true;
      });
    case CommandKind::kWaitEnd:
      return WaitUntil(command, "call end", [&] {
        const int ends = view_.counts().ends;
        if (ends <= seen_.ends) return false;
        seen_.ends = ends;
        return true;
      });
  }
  return {};
}

}  // namespace deskline::phone
