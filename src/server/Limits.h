// Dimensions of the server's tables.
#pragma once

#include <cstddef>

constexpr int kClientSlots = 10;        // TCP client indices 0-9
constexpr int kInternalClient = 10;     // the server's own caller: tag replay, front panel, its own log entries
constexpr int kClientEntries = 11;      // every per-client table has a row for the internal client too
constexpr int kOpticalChannels = 4;     // physical DUT channels of the card
constexpr int kMaxMuxLevel = 4;         // multiplexer layers
constexpr int kLogicalChannels = 16;    // optical channels x multiplexer layers
constexpr int kSensorsPerChannel = 250; // also the card's peak limit per channel
constexpr int kDetectorChannels = 6;    // FBG, FFPI, DUT 0-3
constexpr int kAnalogOutputs = 6;
constexpr int kSwitchdownEntries = 10;
constexpr int kGainCodes = 65536;
constexpr int kDbTableEntries = 402;
constexpr int kCmdLogEntries = 128;
constexpr int kCmdLogLineChars = 40;
constexpr int kUserVars = 10;

constexpr size_t kResponseTextBytes = 32000;
constexpr size_t kResponseBufferBytes = 10 + kResponseTextBytes;  // length prefix + reply text

constexpr size_t kProcessedRecordBytes = 4612;  // 88-byte card header followed by the processed sensor values
constexpr int kProcessedRingSlots = 30000;
constexpr size_t kErrorRecordBytes = 104;
constexpr size_t kSpectrumRecordBytes = 65640;
constexpr int kSpectrumRingSlots = 16;
constexpr size_t kRawSpectrumBytes = 65640;
constexpr int kFsHistoryDepth = 128;   // sweeps of one full-spectrum cycle
constexpr int kFsSamples = 256;

constexpr int kDefaultAveragingDepth = 10000;

// Index of a per-client table for a caller number: 0-9 are clients, anything else is the
// internal caller's row.
constexpr int ClientRow(int client) { return (client >= 0 && client < kClientSlots) ? client : kInternalClient; }
