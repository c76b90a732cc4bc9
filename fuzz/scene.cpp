// Fuzz target: the simulated card's scene files. Each input is parsed as scene text; a scene
// that parses has each sensor's wavelength and presence evaluated over a few periods, as the
// synthesizer asks for them record by record.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>

#include "sim/SimScene.h"

namespace {
volatile double Sink;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const sim::CSceneParseResult result = sim::ParseScene(std::string(reinterpret_cast<const char*>(data), size));
  if (!result.bOk) {
    if (result.Error.empty()) __builtin_trap();  // a refusal always says where and why
    return 0;
  }
  double sum = 0;
  for (const auto& channel : result.Scene.Sensors)
    for (const sim::CSimSensor& sensor : channel)
      for (double t : {0.0, 0.25, 1.0, 7.5, 3600.0, 1e6})
        sum += sensor.PresentAt(t) ? sensor.WavelengthAt(t) : 0.0;
  Sink = sum;
  return 0;
}
