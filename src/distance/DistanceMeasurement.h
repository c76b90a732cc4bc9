// Working state of the sensor distance measurement.
//
// A far sensor's echo reaches the detector late, by its round trip in the fibre, and the sweep
// has moved on meanwhile: its peak lands later in the sweep by a number of counts proportional
// to the sweep rate. The measurement records every sensor at two sweep rates (the card's clock
// divider off and on), then looks, sensor by sensor, for the distance at which the corrected
// wavelengths of both rates agree. Everything here belongs to the acquisition thread, which
// runs the measurement and the distance plot; the server allocates it on first use.
#pragma once

#include <cstdint>
#include <cstdio>

#include "device/PeaksData.h"
#include "server/Limits.h"

// Indexes of the two sweep rates: the clock divider's state.
constexpr int kDistMeasFast = 0;  // divider off (1 kHz, or 2 kHz in 2 kHz mode)
constexpr int kDistMeasSlow = 1;  // divider on (half the rate)

// Rows of one distance plot at most: bounds the acquisition thread's time on one request.
constexpr long kMaxPlotRows = 10000;

// Where the measurement writes its log (an instrument path).
constexpr const char* kDistMeasLogPath = "/tmp/DistMeas.log";
// Where the averaging depths wait while every sweep counts on its own.
constexpr const char* kDistMeasAveragesPath = "/tmp/avg_settings.dat";

struct SDistMeasState {
  double DistEstimate[kLogicalChannels][kSensorsPerChannel] = {};    // m: current estimate
  double DistPrevious[kLogicalChannels][kSensorsPerChannel] = {};    // m: estimate of the previous evaluation
  double DistNext[kLogicalChannels][kSensorsPerChannel] = {};        // m: next estimate
  double WvlErr[kLogicalChannels][kSensorsPerChannel] = {};          // nm: fast minus slow at the estimate
  double WvlErrPrevious[kLogicalChannels][kSensorsPerChannel] = {};  // nm: the same at the previous estimate

  // The sweeps, by rate and multiplexer layer, as fetched, and processed at the estimates.
  struct_dma_peaks_data RawData[2][kMaxMuxLevel] = {};
  uint8_t Processed[2][kMaxMuxLevel][kProcessedRecordBytes] = {};

  // The operating parameters the measurement replaces, put back when it ends.
  struct {
    bool bSwitchdownEnable = false;
    uint16_t SwitchdownLimit1 = 0;
    uint16_t DataRateDivider = 1;
    uint8_t TriggeringMode = 0;
    uint8_t OperatingMode = 0;
    double LowerWvlLimit = 0.0;
    double UpperWvlLimit = 0.0;
    bool bHwClkDivider = false;
    double TimeOfFlight[kLogicalChannels][kSensorsPerChannel] = {};
  } Saved;

  FILE* Log = nullptr;  // open while a measurement runs
};
