// The data commands: what clients read of the instrument's measurements. The processed-data
// ring (DataRecords.cpp) gives each sweep's sensor wavelengths, with or without levels,
// buffered or newest-only; the spectra and the card's raw record (DataSpectra.cpp) and the
// one-line status summary (DataStatus.cpp) complete the family. DataCommands.cpp registers
// them all.
//
// Every measurement reply is the record's bytes as they stand (little-endian), sent in the
// ten-digit frame. Each buffer a reply leaves from keeps 12 spare bytes before its body, where
// the session layer writes the frame digits in place.
#pragma once

#include <cstdint>
#include <string>

class CCommandContext;
class CVr480Server;

namespace data_commands {

// Reply types the data replies write into the high nibble of header byte 7.
enum : uint8_t {
  kTypeData = 1,            // #GET_DATA
  kTypeSpectrum = 2,        // #GET_SPECTRUM
  kTypeDataAndLevels = 5,   // #GET_DATA_AND_LEVELS
  kTypeRawSpectrum = 6,     // #GET_RAW_SPECTRUM
};

constexpr uint8_t kStatusNoData = 9;  // status code of the header-only reply: no new record

// Offsets within a reply body (= record offset - 12).
constexpr unsigned kBodyTypeByte = 7;
constexpr unsigned kBodyLayerByte = 6;
constexpr unsigned kBodyCounts = 16;      // 4 x u16 sensors per DUT channel
constexpr unsigned kBodySweep = 28;       // u32 sweep counter
constexpr unsigned kBodyStatusCode = 47;  // top byte of the u32 status word at 44
constexpr unsigned kBodyFreePercent = 48;
constexpr unsigned kHeaderBytes = 88;

// ---- Processed records (DataRecords.cpp) ----
// #GET_DATA (levels false) and #GET_DATA_AND_LEVELS (levels true) for the context's caller:
// the next unread record the interleave accepts, waiting (at most a second) when there is
// none. Returns the reply-mode code; the body is set on the context.
int ServeRecord(CCommandContext& c, bool levels);
// The unbuffered forms: the same for the newest record, leaving the buffered position alone.
int ServeNewestRecord(CCommandContext& c, const char* bufferedCommand);
// #RESUME_AFTER_SWEEP n: moves the caller's read position to the oldest record the ring still
// holds after sweep n, so that a reader that reconnects (or a recorder restarted) goes on
// without a gap while the ring covers the outage. Replies with the number of records held and
// the first sweep served; nothing older than the ring's last lap is ever served.
int ResumeAfterSweep(CCommandContext& c);
// Unread records of a caller: W - R around the ring.
int UnreadRecords(const CVr480Server& s, int row);

// ---- Spectra and raw data (DataSpectra.cpp) ----
int GetRawData(CCommandContext& c);
int GetHighSpeedFs(CCommandContext& c);
int GetSpectrum(CCommandContext& c);
int GetRawSpectrum(CCommandContext& c);

// ---- Status (DataStatus.cpp) ----
int WebStatus(CCommandContext& c);
// The #WEB_STATUS line itself, for readers that are not clients (the HTTP status page).
std::string WebStatusLine(CVr480Server& s);

}  // namespace data_commands
