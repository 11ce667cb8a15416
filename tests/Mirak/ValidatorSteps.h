// Test helpers for running the validator one step at a time against a
// writer's table, and for reading the message a step's corruption throws.
#pragma once

#include <functional>
#include <string>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Mirak/Validator.h"

namespace MirakTest {

// A validator run step by step.
template <typename Writer>
struct ValidatorSteps {
  using Audit = Mirak::Validator<typename Writer::Ops, Writer>;
  ValidatorSteps(Lomi::Platform::DebugHandler& handler, Writer& w) : writer(w), audit(handler, w) {
    audit.fitTesselMarks();
  }
  Writer& writer;
  Audit audit;
};

// The text of the Lomi::CorruptionDetectedException that `f` throws.
inline std::string thrown(std::function<void()> const& f) {
  try {
    f();
  } catch (Lomi::CorruptionDetectedException const& e) {
    return e.msg();
  }
  return "nothing thrown";
}

}  // namespace MirakTest
