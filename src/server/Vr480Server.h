// The server object: all state of the instrument server lives in one CVr480Server, built once
// by main as the global Vr480Server. It owns the driver interface, the TCP server, the tag
// store, the event log and the averaging store, every setting a command can read or write,
// the per-client session state and the working tables of the measurement pipeline.
//
// There is no global lock. Command handlers run on the clients' service threads at the same
// time as the acquisition loop and the calibration thread; a setting written by a handler and
// read by the acquisition thread is a Relaxed<T> (atomic, no ordering). The three mutex and
// condition pairs are the only locks the object holds.
//
// Each field says its unit and which thread writes it. "handlers" means command handlers on a
// client's service thread (or the tag replay at start-up); "acquisition" the main thread
// inside Run.
#pragma once

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "device/DriverInterface.h"
#include "device/PeaksData.h"
#include "distance/DistanceMeasurement.h"
#include "processing/WvlAvg.h"
#include "protocol/Socket.h"
#include "server/Limits.h"
#include "server/LatestStatus.h"
#include "server/Relaxed.h"
#include "settings/TagManager.h"
#include "system/DataLogger.h"

// Release texts printed at start-up and folded into the identification string.
inline constexpr const char* kServerRelease = "2.0h";
inline constexpr int kSvnBaseBuild = 47;
inline constexpr const char* kBuildDate = "Mon Dec  6 22:30:32 GMT-5 2010";
inline constexpr int kCommandPort = 1852;
inline constexpr const char* kSettingsName = "vr480";

// Result codes of Init.
enum : int16_t {
  kInitOk = 0,
  kInitNoCard = 1,        // no card, unknown card, or the calibration thread could not start
  kInitNoMemory = 3,      // a ring buffer could not be allocated
  kInitBlankBridge = 4,   // blank bridge found and its configuration memory written
  kInitReflashed = 5,     // configuration memory rewritten because its revision was too old
};

class CVr480Server {
 public:
  CVr480Server();
  ~CVr480Server();
  CVr480Server(const CVr480Server&) = delete;
  CVr480Server& operator=(const CVr480Server&) = delete;

  // ---- Life of the process -------------------------------------------------------------
  int16_t Init();           // main thread: open the card, configure, replay settings, start threads
  int Run();                // main thread: start-up phase, then the acquisition loop until bRun clears
  int SimulateShutdown();   // power-down countdown after #SHUTDOWN; returns at once otherwise
  int Shutdown();           // LEDs off, card closed, averaging buffers and rings released

  // ---- Acquisition (main thread) and its mode setters (any thread) ---------------------
  // Fetches and patches the next record; false only when the server is stopping and the card
  // delivered none.
  bool GetData();
  int SetOperatingMode(uint8_t mode);
  // Waits up to 1 s for the card to report triggered acquisition when one is enabled; the
  // acquisition thread itself passes waitForCard false (it is the one that would see it).
  int SetTriggeringMode(uint8_t mode, bool waitForCard = true);
  uint16_t GetTriggeringMode();
  int SetMuxLevel(int level);
  int GetMuxLevel() const { return MuxLevel; }
  void SetDataRateDivider(uint16_t divider);
  uint16_t Switchdown(uint16_t divider) const;
  int TemperatureMonitor();
  // The sweep rate: 1000/s, 2000/s in 2 kHz mode, halved by the hardware clock divider.
  int SweepRate();

  // Allocates the processed-data, spectrum and raw-spectrum buffers (Init does it; a test
  // that drives the pipeline without a card calls it itself). False when memory is short.
  bool AllocateRings();

  // ---- Averaging depth per sensor ---------------------------------------------------------
  // Any thread. The depth is recorded at once (GetNumAverages answers it) and reaches the
  // averaging store with the next processed record. A depth above the store's capacity leaves
  // the sensor's depth as it was. 0, or -1 for a channel or sensor out of range.
  int SetNumAverages(uint8_t channel, uint16_t sensor, uint16_t n);
  uint16_t GetNumAverages(uint8_t channel, uint16_t sensor);
  void ApplyAveragingDepths();  // acquisition: carries changed depths into the store

  // ---- Commands -----------------------------------------------------------------------
  // Runs one command line for a caller (0-9 a client, 10 the server itself) and returns the
  // reply-mode code; *reply and *length give the reply body (the caller's ResponseText for
  // text replies). Commands of different clients run at the same time.
  int ProcessCmd(short client, const char* line, char** reply, unsigned int* length);
  // Runs a command line as the internal client, discarding the reply.
  void ExecuteInternal(const std::string& line);
  // The diagnostic bundle of #DUMP_CORE: builds the zip archive `zipFile` (an instrument path,
  // protected by `password` unless it is empty) from a summary, the tags, raw records and
  // spectra and the replies of the query commands, all taken through the command interpreter
  // as the internal client. Runs for seconds (over 30 s on a laser that is not ready). 0, or
  // -1 when the summary file cannot be created.
  int DumpCore(const std::string& zipFile, const std::string& password);
  // 0 when the argument text has min to max columns, -1 when not, -2 when min > max.
  int CheckNumArgs(const std::string& args, uint16_t min, uint16_t max);
  // Runs one command for a client and sends its reply in the frame its code asks for; returns
  // the reply-mode code.
  int ServiceSocket(uint16_t client, const char* command);
  // Client service threads still running (the stop path and Shutdown wait for them).
  int RunningServiceThreads() const;
  // Releases the ring slot a client's record reply had marked in use.
  void ReleaseClientRecord(uint16_t client);

  // ---- Platform and owned objects ---------------------------------------------------------
  bool bPcm9361Board;              // the processor-board marker "/vr480.9361.id" existed at construction; constructor
  C480_DriverInterface Driver;     // the only path to the card
  uint16_t DeviceId = 0;           // PCI device ID read at start-up; Init
  CTagManager TagManager;          // settings tag store
  CSocket Socket;                  // TCP command server
  CDataLogger DataLogger;          // event log

  // ---- Client sessions (rows 0-9 clients, row 10 the internal client) ---------------------
  pthread_t ClientThread[kClientEntries] = {};                // service thread of each slot; connect callback
  std::atomic<bool> bClientDisconnect[kClientEntries] = {};   // tells a slot's service thread to end; stop path, handlers
  std::atomic<bool> bClosingSessions{false};                   // the server is stopping: service threads close their slots
  std::atomic<uint32_t> SessionGeneration[kClientEntries] = {}; // counts the sessions of each slot; connect callback
  std::atomic<bool> bServiceRunning[kClientEntries] = {};       // a service thread serves the slot; that thread
  char* ResponseBuffer[kClientEntries] = {};                  // 32010-byte reply buffer per caller; constructor
  char* ResponseText[kClientEntries] = {};                    // ResponseBuffer + 10: where the reply text goes
  std::atomic<int32_t> ClientRecordInUse[kClientEntries] = {};  // ring slot of the client's current reply (-1 none); service thread

  // ---- Peaks records (acquisition thread) ---------------------------------------------------
  struct_dma_peaks_data* pPeaks = nullptr;     // record just fetched (card buffer, or BinnedPeaks)
  struct_dma_peaks_data* pRawPeaks = nullptr;  // the card's record while sensor binning is on
  struct_dma_peaks_data BinnedPeaks{};         // record rebuilt by sensor binning
  std::atomic<struct_dma_peaks_data*> pLastPeaks{nullptr};  // record handed to processing (acquisition side)
  CLatestStatus LatestStatus;  // its status header, for every other thread

  // ---- Client data and spectrum hand-over ---------------------------------------------------
  uint8_t* ProcessedData = nullptr;                            // 30000 x 4612-byte ring of processed records; Init
  uint8_t ClientDataCopy[kClientEntries][kProcessedRecordBytes] = {};  // private copy of one record per client
  uint8_t ErrorDataRecord[kErrorRecordBytes] = {};             // 12 bytes headroom, 88 zero header, u32 length 88
  uint8_t* SpectrumBuffer = nullptr;                           // 16 x 65640-byte ring of calibrated spectra; Init
  uint8_t ClientSpectrumCopy[kClientEntries][kSpectrumRecordBytes] = {};  // per-client spectrum copy
  std::atomic<uint16_t> ProcessedWriteIndex{0};                // next ring slot the producer fills, 0-29999; acquisition
  std::atomic<uint16_t> ProcessedReadIndex[kClientEntries] = {};  // next ring slot each client reads; service thread
  std::atomic<uint16_t> SpectrumReadIndex[kClientEntries] = {};   // next spectrum slot each client reads
  std::atomic<uint16_t> SpectrumWriteIndex{0};                 // spectrum ring write index; calibration thread
  std::atomic<bool> bStreaming[kClientEntries] = {};           // #SET_STREAMING_DATA per client; handlers
  std::atomic<bool> bStreamCommandPending[kClientEntries] = {}; // a streaming client's command waits behind its record; service thread
  std::atomic<bool> bUseStreamTokens[kClientEntries];          // #SET_USE_STREAM_TOKENS per client (default on); handlers

  // ---- Optical control loops ----------------------------------------------------------------
  Relaxed<bool> bAutoBias = false;              // #SET_AUTOBIAS; handlers
  Relaxed<uint16_t> InitialBias = 32768;        // laser bias applied at start when bAutoBias, LSB; handlers
  Relaxed<uint16_t> Bias = 32768;               // working bias of the auto-bias loop, LSB; acquisition
  Relaxed<double> GratingTargetLocation = 0.5;  // target grating position, fraction of the sweep; handlers
  Relaxed<int32_t> GratingTargetLocationCounts = 32768;  // the same in counts (x 65536, truncated); handlers
  Relaxed<double> BiasFeedbackGain = 0.1;       // #SET_BIAS_FEEDBACK_GAIN; handlers
  Relaxed<uint16_t> MaxBiasError = 20;          // counts; also the initial auto-bias convergence limit; handlers
  Relaxed<uint16_t> MaxBiasStep = 1000;         // LSB per loop step; handlers

  // ---- Wavelength scale and reference grating ------------------------------------------------
  Relaxed<int32_t> Granularity = 1000000;       // integer wavelength units per nm; handlers
  Relaxed<uint16_t> NumDutChannels = 4;         // #SET_ZOR_NUM_DUT_CHANNELS; handlers
  Relaxed<double> FfpiRefPeakThz = 194.0;       // frequency of the comb tooth the scale is anchored to, THz; handlers
  double FfpiPeakThz[kSensorsPerChannel] = {};  // frequency of each comb peak of the current record, THz; acquisition
  Relaxed<double> FbgThz = 193.49;              // reference grating frequency of the current record, THz; acquisition
  Relaxed<double> FfpiFsrGhz = 100.0;           // comb free spectral range, GHz; handlers
  Relaxed<uint16_t> FfpiRefPeakIndex = 0;       // comb index of the peak at FfpiRefPeakThz; acquisition
  Relaxed<uint16_t> FbgChannel = 0;             // peak list the grating is taken from (0 = its own); handlers
  Relaxed<double> SteinhartB0 = 0.001111626146876;    // thermistor model coefficients; handlers
  Relaxed<double> SteinhartB1 = 0.0002370659380533;
  Relaxed<double> SteinhartB3 = 7.54233759059e-08;
  Relaxed<uint16_t> FbgRefVth = 32767;          // thermistor reading at which the grating is at FbgRefWvlNm; handlers
  Relaxed<double> FbgRefWvlNm = 1550.0;         // nm; handlers
  Relaxed<double> FbgNmPerDegC = 0.01;          // grating temperature coefficient, nm/degC; handlers
  Relaxed<double>* Vth2Thz = nullptr;           // 65536 entries: thermistor reading + 32768 -> grating THz; Init,
                                                // rebuilt in place by #REBUILD_FBG_VTH_LUT while acquisition reads it

  // ---- Acquisition rate and modes -------------------------------------------------------------
  Relaxed<uint16_t> SwitchdownLimit[kSwitchdownEntries];  // sensor count that switches the rate down at divider i; handlers
  Relaxed<bool> bSwitchdownEnable = false;       // #SET_SWITCHDOWN_ENABLE; handlers
  Relaxed<uint16_t> DataRateDivider = 0;         // current data-rate divider (1 after Init); setters, acquisition
  Relaxed<uint16_t> MinDataRateDivider = 1;      // #SET_MIN_DATA_RATE_DIVIDER; handlers
  std::atomic<bool> bTriggeredModeEntered{false};  // the last record reports triggered acquisition; acquisition
  std::atomic<bool> bNewRecord[kClientEntries] = {};    // a record arrived since the client's last raw read; acquisition sets
  std::atomic<bool> bNewSpectrum[kClientEntries] = {};  // a spectrum arrived since the client's last read; calibration sets
  Relaxed<double> CalculatedFbg = 0.0;           // #GET_CALCULATED_FBG, nm; acquisition
  Relaxed<double> WvlCorrCoef = 0.0;             // comb coefficient of the current record; acquisition
  Relaxed<double> MaxWvlCorrCoefError = 0.15;    // tolerance of the comb coefficient; handlers
  Relaxed<bool> bMonitoredFbg = true;            // #SET_MONITORED_FBG; handlers
  Relaxed<int32_t> Peak2Use = 0;                 // #SET_PEAK2USE; handlers

  // ---- Sensor geometry and distance measurement -------------------------------------------------
  Relaxed<double>* SensorDistances[kLogicalChannels] = {};       // sensor location, m; handlers, location files
  Relaxed<double>* TimeOfFlightInCounts[kLogicalChannels] = {};  // time of flight per sensor, counts; built from the locations
  Relaxed<double> IndexOfRefraction[kLogicalChannels];  // group index per logical channel (1.46); handlers
  Relaxed<double> SpeedOfLight = 299792458.0;           // m/s; handlers
  Relaxed<bool> ChEnable[kLogicalChannels];             // logical channel enabled (index = channel - 1); handlers
  std::atomic<bool> bMeasureLocations{false};           // distance measurement requested; handlers set, acquisition clears
  Relaxed<int32_t> LocMeasAverages = 1;                 // #SET_LOC_MEAS_AVERAGES; handlers
  Relaxed<int32_t> LocMeasMaxIterations = 100;          // #SET_LOC_MEAS_MAX_ITERATIONS; handlers
  Relaxed<double> LocMeasMaxWvlErrNm = 0.001;           // nm; handlers
  Relaxed<int32_t> LocMeasResult = 0;                   // result of the last measurement or plot; acquisition
  Relaxed<double> LocMeasChOffsetMeters[kLogicalChannels];     // m; handlers
  Relaxed<double> ZorLocMeasChOffsetMeters[kLogicalChannels];  // m; handlers
  Relaxed<double> MeasuredLocation[kLogicalChannels][kSensorsPerChannel];  // last measured locations, m; acquisition
  std::atomic<bool> bLocMeasGeneratePlot{false};        // plot requested; handlers set, acquisition clears
  // One auto-bias step on the acquisition thread (which owns the record it reads) for a
  // command thread: the result of that step, or -1 when no record came within the wait.
  int RunAutoBiasOnAcquisitionThread(std::chrono::milliseconds wait);
  std::atomic<bool> bAutoBiasStepRequested{false};      // handlers set, acquisition clears
  std::atomic<int> AutoBiasStepResult{0};               // acquisition
  struct {
    bool bFlag = false;
    double Values[3] = {};
    int32_t Ints[2] = {};
  } LocMeasPlotArgs;                                    // new data, start/stop/step m, channel/sensor 0-based; the
                                                        // plot handler, under LocMeasPlotLock, before posting
  std::mutex LocMeasPlotLock;                           // one plot request at a time
  Relaxed<bool> bLocMeasEnable = false;                 // #SET_ZOR_LOC_MEAS_ENABLE; handlers

  // Time of flight, in sweep counts, of a sensor `metres` down channel `logical`'s fibre at
  // `sweepRate` sweeps per second (one sweep spans 131072 counts).
  double TimeOfFlightCounts(int logical, double metres, double sweepRate) const;
  // Recomputes the time of flight of one sensor, one channel (sensor -1) or every channel
  // (logical -1) from the locations, at the current sweep rate.
  void UpdateTimeOfFlight(int logical, int sensor);
  // Empties the running averages of one sensor, one channel (sensor -1) or all (logical -1)
  // with the next record; any thread (the acquisition thread owns the averaging store).
  void RequestAveragesReset(int logical, int sensor);

  // ---- References, averages, gains -------------------------------------------------------------
  // The per-sensor tables (references, locations, flight times, gain offsets) are written by
  // handlers and the file loaders while the pipeline reads them record by record: each entry
  // is a Relaxed value, so a reader sees an entry's old or new value and the per-record path
  // takes no lock (a relaxed load is a plain load on this processor).
  Relaxed<int32_t>* SensorReferences[kLogicalChannels] = {};  // reference per sensor, 1/Granularity nm; handlers, files
  Relaxed<bool> bUseReferences = false;              // #SET_USE_REFERENCES; handlers
  // Averaging depth per sensor (default MinNumAverages), values; handlers write it, and the
  // acquisition thread carries it into the averaging store (ApplyAveragingDepths), which only
  // that thread touches while it runs.
  Relaxed<uint16_t>* SensorAverages[kLogicalChannels] = {};
  std::atomic<bool> bAveragingDepthsChanged{false};  // SensorAverages holds depths the store has not taken; handlers set
  Relaxed<uint16_t> MinNumAverages = 1;              // #SET_MIN_NUM_AVERAGES; handlers
  Relaxed<uint32_t>* GainWvlOffset[kOpticalChannels] = {};  // wavelength offset per optical channel and gain code; files, handlers
  Relaxed<bool> bEnableWvlOffsets = true;            // #SET_ENABLE_WVL_OFFSETS; handlers
  uint16_t Db2Counts[kOpticalChannels][kDbTableEntries] = {};  // dB -> gain counts per optical channel; files
  Relaxed<uint16_t> MinChPwrLevel[kOpticalChannels];  // #SET_MIN_CH_PWR_LEVEL; handlers
  Relaxed<uint16_t> MaxChPwrLevel[kOpticalChannels];  // #SET_MAX_CH_PWR_LEVEL; handlers
  CVr480WvlAvg WvlAvg;                                // running averages per sensor
  std::mutex AveragingLock;                           // the store's geometry (rebuilt at a multiplexer change) against depth changes
  Relaxed<double> LowerWvlLimit = 1520.0;             // reporting window, nm; handlers
  Relaxed<double> UpperWvlLimit = 1570.0;             // nm; handlers
  Relaxed<uint16_t> MaxDutChGain[kOpticalChannels];   // #SET_MAX_DUT_CH_GAIN (65535); handlers
  Relaxed<double> ZorMaxGainDb = 40.1;                // gain range of the detectors, dB; handlers

  // ---- Auto-scan ---------------------------------------------------------------------------------
  Relaxed<bool> bScaleValid = false;              // the comb was placed on the current record; acquisition
  Relaxed<int32_t> AutoScanRightPeaks = 56;       // comb teeth wanted right of the grating; handlers
  Relaxed<int32_t> AutoScanLeftPeaks = 44;        // comb teeth wanted left of the grating; handlers
  Relaxed<double> AutoScanSpan = 0.7;             // fraction of the sweep the comb should span; handlers
  Relaxed<bool> bAutoScanAmp = false;             // #SET_AUTO_SCAN_AMP; handlers
  Relaxed<double> AutoScanFeedbackGain = 0.1;     // handlers
  Relaxed<int32_t> AutoScanMaxStep = 5000;        // LSB; handlers
  Relaxed<int32_t> AutoScanMaxError = 20;         // counts; handlers
  Relaxed<uint32_t> ScaleRefPeakIndex = 0;        // copy of FfpiRefPeakIndex; acquisition

  // ---- Identification and versions ----------------------------------------------------------------
  uint16_t CfcVersion = 0;                        // base CFC build from "/cfc_build.dat"; Init
  char SerialNumber[20] = "No S/N";               // #SET_SN; handlers
  std::atomic<uint32_t> DataInterleave[kClientEntries] = {};  // #SET_DATA_INTERLEAVE per client (1 on connect)
  std::atomic<bool> bBufferEnable[kClientEntries] = {};       // #SET_BUFFER_ENABLE per client (true on connect)
  char IdnText[128] = {};                         // identification text; Init, #SET_IDN_TXT
  char ZorIdn[128] = {};                          // maker identification; Init
  char ProductId[64] = {};                        // product identification; Init, handlers
  mutable std::mutex IdentityLock;                // the identification texts above: clients read them while Init ends
  Relaxed<int32_t> UserVar[kUserVars];            // #SET_USER_VAR; handlers
  Relaxed<int32_t> ZorVar[kUserVars];             // #SET_ZOR_VAR; handlers

  // ---- Full spectrum ---------------------------------------------------------------------------------
  Relaxed<int16_t> FsCountOffset = 75;            // count offset of the full spectrum (calibrated at start); acquisition
  pthread_t FsCalThread{};                        // the calibration thread; Init
  uint8_t* RawSpectrumBuffer = nullptr;           // last finished raw spectrum, 65640 bytes, under FsCalMutex; Init
  Relaxed<double> FsWvlOffsetNm = 0.0;            // #SET_FS_WVL_OFFSET_NM; handlers
  Relaxed<double> HighSpeedFsStartWvl = 0.0;      // nm; acquisition
  Relaxed<double> HighSpeedFsEndWvl = 0.0;        // nm; acquisition
  Relaxed<bool> bFsEnable = false;                // #SET_ZOR_FS_ENABLE; handlers
  Relaxed<uint16_t> FsPhaseStart = 127;           // phase at which the current 128-sweep cycle started; acquisition
  Relaxed<bool> bFsRestart = false;               // restart the spectrum cycle; #SET_ZOR_AMP_CH sets
  Relaxed<int32_t> FsSkipCount = 0;               // spectra to drop; #SET_ZOR_AMP_CH sets 3
  std::atomic<bool> bReady{false};                // #READY?: the scan loop found the comb where it wants it; acquisition
  std::atomic<int32_t> MuxLevel{1};               // multiplexer level 1, 2 or 4; SetMuxLevel
  std::atomic<bool> bMuxLevelChanged{false};      // set by SetMuxLevel, consumed by the acquisition loop
  uint16_t* FS_RawHistoryBuffer[kMaxMuxLevel][kFsHistoryDepth] = {};  // raw samples per layer, 128 x 256 u16; acquisition
  uint16_t FsHistoryIndex[kMaxMuxLevel] = {};     // write index of each history; acquisition
  bool PeakAmpDirty[kMaxMuxLevel][256] = {};      // cached peak amplitude must be recomputed; acquisition
  Relaxed<int32_t> PeakAmpBufDepth = 128;         // #SET_PEAK_AMP_BUF_DEPTH; handlers
  Relaxed<int32_t> PeakAmpSearchWnd = 1;          // #SET_PEAK_AMP_SEARCH_WND; handlers

  // ---- Synchronisation ----------------------------------------------------------------------------
  std::mutex DataMutex;                   // processed-data ring and trigger changes
  std::condition_variable DataCond;       // broadcast when a record is published or the trigger mode changes
  std::atomic<uint32_t> DataModeChanges{0};  // DataCond broadcasts for a trigger mode change (not a record); acquisition
  // Counters for the metrics page (never reset while the server runs); acquisition.
  std::atomic<uint64_t> RecordsProcessed{0};   // card records through the pipeline
  std::atomic<uint64_t> RecordsPublished{0};   // records put in the processed-data ring
  std::atomic<uint64_t> SweepGaps{0};          // jumps of the card's sweep counter (sweeps the card dropped)
  std::atomic<uint64_t> SweepsMissed{0};       // sweeps in those jumps
  uint32_t LastSweepSeen = 0;                  // sweep counter of the previous record; acquisition
  std::mutex SpectrumMutex;               // spectrum hand-over to #GET_SPECTRUM
  std::condition_variable SpectrumCond;
  std::mutex FsCalMutex;                  // raw spectrum hand-over to the calibration thread
  std::condition_variable FsCalCond;

  // ---- Command log and system -------------------------------------------------------------------
  Relaxed<bool> bEnableCmdLog = false;                // #SET_ENABLE_CMD_LOG; handlers
  char CmdLog[kCmdLogEntries][kCmdLogLineChars] = {}; // ring of logged command lines; dispatcher
  uint32_t CmdLogHead = 0;                            // next ring entry; dispatcher
  uint32_t CmdLogCount = 0;                           // repeat count of the previous line; dispatcher
  std::string LastCmdLine, CurrentCmdLine;            // command history working lines; dispatcher
  std::mutex CmdLogLock;                              // guards the command history while it is recorded
  std::recursive_mutex InternalClientLock;            // one internal command at a time (its reply row is shared)
  Relaxed<double> SoaOnWvl = 0.0, SoaOffWvl = 0.0;    // SOA window, nm; handlers
  Relaxed<int32_t> SyncCtrlMode = 0;                  // #SET_SYNC_CTRL_MODE; handlers
  Relaxed<uint32_t> SyncHiCount = 0, SyncLoCount = 65536;  // sync output edges, counts; handlers
  Relaxed<double> SyncHiWvl = 0.0, SyncLoWvl = 0.0;   // sync output edges, nm; handlers
  Relaxed<int32_t> LocMeasJ = 0;                      // #J; handlers
  char OutputTerminal[100] = {};                      // terminal of standard output; Init
  FILE* SerialPort = nullptr;                         // first serial port, or none; Init
  Relaxed<int32_t> StreamRecoveryAttempts = 600;      // handlers
  Relaxed<int32_t> StreamRecoveryDelayUs = 100000;    // us; handlers
  Relaxed<int32_t> SocketRecoveryAttempts = 40;       // handlers
  Relaxed<int32_t> SocketRecoveryDelayUs = 250;       // us; handlers
  Relaxed<float> MinInternalTempC = 0.0f;             // lowest internal temperature seen, degC; acquisition
  Relaxed<float> MaxInternalTempC = 50.0f;            // highest internal temperature seen, degC; acquisition
  Relaxed<bool> bEnableSensorBins = false;            // sensor binning in force; handlers
  Relaxed<bool> bSensorBinLearning = false;           // learning in progress; handlers, acquisition
  Relaxed<int32_t> SensorBinWidth = 200;              // largest move of a sensor between records, counts; handlers
  Relaxed<int32_t> SensorBinCount[kLogicalChannels];   // learned bins per logical channel; acquisition counts, handlers clear
  uint32_t SensorBinPositions[kLogicalChannels][kSensorsPerChannel] = {};  // bin positions, counts; acquisition
  int32_t LastBinFaultCnt[kLogicalChannels] = {};     // peak count at the last bin fault; acquisition
  Relaxed<bool> bEmbeddedMode = false;                // #SET_EMBEDDED_MODE; handlers

  // ---- Analog voltage outputs (one entry per output) ---------------------------------------------
  Relaxed<uint8_t> AvoChannel[kAnalogOutputs];        // logical channel of the sensor shown; handlers
  Relaxed<uint16_t> AvoSensor[kAnalogOutputs];        // sensor shown (default: the output's index); handlers
  Relaxed<double> AvoReference[kAnalogOutputs];       // wavelength at the reference voltage, nm; handlers
  Relaxed<double> AvoReferenceVout[kAnalogOutputs];   // V; handlers
  Relaxed<double> AvoScalingFactor[kAnalogOutputs];   // V/nm; handlers
  // The average each output showed with the last record, and whose: bits 63-32 hold
  // (channel << 16 | sensor) + 1 (0 before the first record), bits 31-0 the average in
  // 1/Granularity nm. One word, so that a reader never pairs one sensor's key with another's
  // value; acquisition writes, #SET_AVO_REFERENCE reads.
  Relaxed<uint64_t> AvoShownAverage[kAnalogOutputs];

  // ---- Shut-down and front panel -------------------------------------------------------------------
  std::atomic<bool> bShutdownRequested{false};        // #SHUTDOWN
  Relaxed<int32_t> ShutdownDelaySeconds = 0;          // countdown of #SHUTDOWN, s
  void SetStatusText(const std::string& text);        // message shown by the front panel
  std::string GetStatusText() const;

  // Binning slew limit (counts per record); the constructor sets 200.
  // A width below one count is refused (-1) and the default 200 is kept in force.
  int SetMaxSensorSlewRate(int32_t counts) {
    if (counts < 1) {
      SensorBinWidth = 200;
      return -1;
    }
    SensorBinWidth = counts;
    return 0;
  }

  // The wavelength scale's table and conversions, also used by command handlers.
  int build_FBG_Vth2Thz_LUT();
  double Wvl2Counts(double wvlNm);
  // A record with a comb has been published, so wavelengths convert to counts. Any thread.
  bool ScaleKnown() const {
    std::lock_guard<std::mutex> g(ScaleLock);
    return Scale.Count >= 2;
  }
  // SOA window edges given in wavelengths before the first scale (the settings replay); the
  // acquisition loop applies them with ApplyPendingSoaWindow once the scale is known.
  std::atomic<bool> bSoaOnWvlPending{false}, bSoaOffWvlPending{false};
  void ApplyPendingSoaWindow();

  // ---- Settings files ----
  // SaveSettings writes the tag file and the reference, location, averages and dB tables;
  // SaveWvlGains the gain wavelength-offset tables. Both write crash-safely inside the remount
  // bracket of settings/SettingsWrite.h and explain failures on the console. 0, or -1 when a
  // file could not be written; `unwritten` then gets those files' names, ", " between them.
  int SaveSettings(std::string* unwritten = nullptr);
  int SaveWvlGains(std::string* unwritten = nullptr);
  friend struct SettingsFilesAccess;  // the settings-file tests load the tables as start-up does

  // ---- Event log ----
  // Appends one time-stamped line to "vr480.log" inside the settings write bracket (remount
  // read-write, write, "/bin/sync", read-only remount; failures on the console). Returns 0.
  // Runs inside command execution (#LOG_ENTRY); other threads send "#LOG_ENTRY ..." instead.
  int LogEntry(const std::string& text);

  // ---- Laser commands and control loops ----
  // The scan loop's target width of the comb stretch: AutoScanSpan = fraction of the sweep,
  // AutoScanTargetCounts = truncate(fraction x 65536). Any thread. Returns 0.
  int SetScanAmpTargetSpan(double fraction);
  Relaxed<int32_t> AutoScanTargetCounts = 45875;  // counts (0.7 of the sweep); SetScanAmpTargetSpan
  int32_t AutoScanCalls = 0;                      // scan-loop calls since it was last satisfied; acquisition
  friend struct LaserCommandAccess;  // the laser commands rebuild the delay table after a rate change

  // ---- Data retrieval ----
  // Reply buffers of the data commands, one row per caller (0-9 clients, 10 the internal
  // caller), each touched only by its caller's thread. Like the ring slots, each keeps 12 spare
  // bytes before its body where the frame's ten digits are written in place.
  static constexpr size_t kWvlLvlCntsBytes = 12 + 88 + 8500;  // body 88 + 8T + 2A, with T <= 1000 and 4T + 2A <= 4500
  static constexpr int kRecordSlotLocks = 64;                 // processed slot s uses lock s mod 64
  uint8_t ClientErrorRecord[kClientEntries][kErrorRecordBytes] = {};  // the caller's own header-only "no data" reply
  uint8_t WvlLvlCntsBuffer[kClientEntries][kWvlLvlCntsBytes] = {};    // #GET_WVL_LVL_CNTS: newest record with levels, then counts
  uint8_t RawDataCopy[kClientEntries][kPeaksRecordBytes] = {};        // #GET_RAW_DATA: the card's record as delivered
  uint16_t HighSpeedFsBuffer[kClientEntries][kFsSamples] = {};        // #GET_HIGH_SPEED_FS: samples inside the calibrated window
  Relaxed<int32_t> HighSpeedFsStartCount = 0;   // first sweep point (0-32767) the calibrated spectrum covers; calibration thread
  Relaxed<int32_t> HighSpeedFsEndCount = 0;     // one past its last point (0-32767); calibration thread
  std::mutex RecordSlotLock[kRecordSlotLocks];  // a processed slot's in-use mark and reply patches; data commands
  // What the front panel last displayed, for #WEB_STATUS: empty texts and zeros until its first
  // refresh. The front-panel thread writes it under PanelTextsLock; readers take a copy.
  struct SPanelTexts {
    std::string SweepRate;                   // "%0.1f Hz"
    int DriverVersion = 0;                   // driver release shown
    int FirmwareVersion = 0;                 // FPGA synthesis release shown (peaks header byte 2)
    std::string IpAddress, Netmask;          // dotted quads shown
    std::string TimeSource;                  // "NTP" or "System Clock"
    std::string DateTime;                    // local time in asctime form, without its line feed
    std::string OperatingMode;               // "Master", "Stand-Alone", "End Slave", "Middle Slave" or "???"
    std::string TriggerMode;                 // "S/W Trigger", "H/W Trigger", "Untriggered" or "N/A"
    std::string TriggerState;                // auto re-trigger: "On", "Off" or "N/A"
    std::string SensorCounts[kMaxMuxLevel];  // per multiplexer layer: the four channel counts as shown
  };
  SPanelTexts PanelTexts;             // guarded by PanelTextsLock
  mutable std::mutex PanelTextsLock;

  // ---- Full spectrum ----
  // The acquisition thread interleaves 128 sweeps of samples into FsAssembly. When a cycle is
  // complete it copies the spectrum and its header into RawSpectrumBuffer, and the comb that
  // scales it into the FsFfpi fields, under FsCalMutex, and counts FsCalGeneration up; the
  // calibration thread copies them out under the same lock and resamples its own copy.
  static constexpr int kFsPoints = 32768;               // points of a full spectrum: 128 phases x 256 samples
  int16_t FsAssembly[kFsPoints] = {};                   // full spectrum being assembled; acquisition
  int16_t PeakAmpCache[kMaxMuxLevel][kFsSamples] = {};  // last amplitude per layer and sample; acquisition
  int32_t FsFfpiPoints[kSensorsPerChannel] = {};        // comb teeth of the finished spectrum, spectrum points; under FsCalMutex
  double FsFfpiThz[kSensorsPerChannel] = {};            // their frequencies, THz; under FsCalMutex
  int32_t FsFfpiCount = 0;                              // teeth in FsFfpiPoints, 0 when the record had no scale; under FsCalMutex
  int32_t FsFfpiRefIndex = 0;                           // that record's reference tooth (FfpiRefPeakIndex); under FsCalMutex
  uint32_t FsCalGeneration = 0;                         // full spectra handed over so far; under FsCalMutex
  friend struct FullSpectrumAccess;                     // the spectrum tests drive the acquisition stages and the thread

 private:
  // Start-up stages, in the order Init runs them.
  int16_t OpenCard();
  void PutCardInKnownState();
  void WriteIdentificationDefaults();
  void InitAveragingStore();
  void ReplayTags();
  void StartTcpServer();
  bool StartCalibrationThread();
  bool StopCalibrationThread();
  void LoadDataFiles();
  void LoadSettingsDataFiles();
  void BuildTimeOfFlightLUT();
  void WriteIdentificationSuffix();

  // Start-up phase of Run, then the loop and its stop path.
  void RunStartupPhase();
  void InitialAutoBias();
  void CheckVersions();
  void PrintBanner();
  void PrintNetworkInterface();
  void CalibrateStartupFsOffset();
  void AcquisitionPass();
  int StopAcquisition();
  void RebuildAveragingForMuxLevel();

  // Stages filled by the processing, spectrum, control-loop and distance subsystems.
  void BinAcquiredData();
  void BuildRawFSBuffer();
  int ProcessPeaksData();
  int AutoBias();
  int AutoScanAmp();
  void BuildSpectrum();
  int CalibrateFsOffset();
  int MeasureSensorDistances();

  // The distance measurement's steps (src/distance); acquisition thread only.
 public:
  int DistMeas_GeneratePlot(bool newData, double startM, double stopM, double stepM, int index, int sensor);
  // One sensor's wavelength, nm, or raw count in the stored sweeps of a rate (0 fast, 1 slow);
  // 0 outside the stored data.
  double DistMeas_GetWvl(int divider, int index, int sensor);
  int DistMeas_GetCountVal(int divider, int index, int sensor);

 private:
  SDistMeasState& DistMeasState();
  int DistMeas_SaveOperatingParams();
  int DistMeas_RestoreOperatingParams();
  int DistMeas_GetData();
  int DistMeas_ProcessData();
  int DistMeas_SetHwClkDiv(bool on);
  int DistMeas_CalcTimeOfFlight(int divider);
  int DistMeas_DumpData();
  void DistMeasPrint(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void DistMeasChannelLines(int divider, const std::function<double(int index, int sensor)>& value);
  void ApplyAveragesResets();  // acquisition: carries the requested resets into the store
  std::unique_ptr<SDistMeasState> DistMeas;  // acquisition thread; allocated on first use
  std::mutex AvgResetLock;                    // guards AvgResets
  std::vector<std::pair<int, int>> AvgResets; // requested resets (channel, sensor; -1 for all)
  std::atomic<bool> bAvgResetsPending{false}; // AvgResets is not empty

  void AllocateTables();
  friend struct ServerAccess;  // the acquisition tests drive start-up stages one by one
  void RecordCommandHistory(const std::string& command, const std::string& argText);

  static void* CalibrateSpectrumThread(void* server);
  std::atomic<bool> bFsCalCancel{false};  // asks the calibration thread to end; stop path
  std::atomic<bool> bFsCalRunning{false}; // the calibration thread is alive

  mutable std::mutex StatusTextLock;
  std::string StatusText;  // guarded by StatusTextLock

  // ---- Measurement processing ----
  // The wavelength scale, the peak pipeline and sensor binning (src/processing). The stages
  // the acquisition loop calls (ProcessPeaksData, BinAcquiredData, Wvl2Counts) and the table
  // builder are declared above; these are what the commands and the other subsystems need.
 public:
  // Temperature of the reference grating, degC, for a thermistor reading (Steinhart model of
  // a thermistor in a 10 kOhm divider). Any thread.
  double thermistor_Vth2degC(int16_t vth) const;
  // Grating frequency, THz, for the current record's thermistor reading (from Vth2Thz).
  double GetFBG_Thz() const;
  // Wavelength, nm, of a sweep position on the current record's comb; -1.0 when the record
  // has fewer than 2 comb teeth. Positions outside the comb extrapolate the end segments.
  double Counts2Wvl(double counts) const;
  // On: forget the bins and learn them from the next MuxLevel published records. Off: stop
  // binning and return once the acquisition thread has left binned processing. 0.
  int StartSensorTracking(bool on);
  // Sorts the peaks of `raw` into the learned bins of its layer, writing the result to `out`
  // (a bin without its sensor gets position 0; a missing or extra peak marks a bin fault). 0.
  int BinAcquiredData(const struct_dma_peaks_data& raw, struct_dma_peaks_data& out);
  // Amplitude of the reflected light near full-spectrum sample `sample` of a multiplexer
  // layer; the pipeline reports it for each peak of the amplitude channel.
  int GetPeakAmplitude(int layer, int sample);

  // The scale of the last published record, for conversions on other threads (commands): the
  // acquisition thread copies it after each comb placement, under ScaleLock, so a reader never
  // sees a comb half of one record and half of the next, nor a DMA buffer the card reuses.
  struct SScaleSnapshot {
    int Count = 0;                            // comb teeth
    uint32_t Teeth[kSensorsPerChannel] = {};  // their sweep positions, counts
    double Thz[kSensorsPerChannel] = {};      // their frequencies
    int16_t Vth = 0;                          // the grating thermistor reading of that record
    bool bValid = false;                      // a record has been published
  };
  mutable std::mutex ScaleLock;
  SScaleSnapshot Scale;  // guarded by ScaleLock; acquisition writes
  void SnapshotScale(const struct_dma_peaks_data& rec);  // acquisition, for every fetched record

  Relaxed<bool> bDistMeasActive = false;  // a distance measurement owns acquisition: records are processed but not
                                          // announced, no amplitudes or outputs; distance measurement

 private:
  // Where the comb was placed on a record: the comb segment [Segment-1, Segment] that holds
  // the grating, and the whole number of teeth the reference tooth lies from it.
  struct CombPlacement {
    int Segment = 0;       // smallest comb index whose position lies beyond the grating
    int ToothOffset = 0;   // WvlCorrCoef rounded to a whole number (0 without the monitored grating)
  };
  uint8_t CheckScaleReferences(const struct_dma_peaks_data& rec, const struct_dma_peaks_status& hdr);
  bool PlaceComb(const struct_dma_peaks_data& rec, int combCount, CombPlacement& placement);
  void FinishComb(const struct_dma_peaks_data& rec, int combCount, const CombPlacement& placement, uint8_t* slot);
  uint32_t ConvertSensors(const struct_dma_peaks_data& rec, const struct_dma_peaks_status& hdr, int combCount,
                          uint32_t limit, bool learning, uint8_t* slot, uint32_t& skip);
  void ApplySensorLimit(uint32_t kept, uint32_t limit, uint8_t* slot);
  void CountBinLearningRecord(bool learning);
  uint32_t WriteAmplitudes(const struct_dma_peaks_data& rec, const struct_dma_peaks_status& hdr, uint32_t kept,
                           uint32_t skip, uint8_t* slot);
  void WriteAnalogOutputs();
  void AdvanceProcessedRing();
  void CountSweep(uint32_t sweep);

  std::atomic<int32_t> SensorBinLearnRecords{0};  // published records seen since learning started; acquisition, StartSensorTracking
  friend struct ProcessingAccess;                 // the processing tests and the pipeline benchmark drive the private stages
  // ---- end of measurement processing ----
};

// The server object. main builds it once the host seam is installed (its constructor already
// looks for the board marker file on the host); it lives until the process ends.
extern CVr480Server& Vr480Server;
void ConstructServer();
