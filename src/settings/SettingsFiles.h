// The settings data files beside the tag file in "/vr480": per-sensor tables too large to be
// command lines. CVr480Server::SaveSettings, SaveWvlGains and the start-up loader
// (LoadSettingsDataFiles) live in SettingsFiles.cpp; the formats are:
//
//   references.dat        4000 lines, channel 0-15 then sensor 0-249: unsigned decimal
//   locations.dat         4000 lines, same order: distance in m as printf "%.9g" gives it
//   averages.dat          4000 lines, same order: number of averages, unsigned decimal
//   db2counts.dat         table 0-3 then index 0-401 (1608 lines); the reader also takes the
//                         short form with indexes 0-201 (808 lines)
//   gain_wvl_offsets.dat  binary: table 0-3, entries 0-65534 (not 65535), 4 bytes each,
//                         little-endian, no header: 1,048,560 bytes
//
// Every text line ends with LF. Numbers are written and read in the "C" convention whatever
// locale the front panel sets.
//
// Loading (at start-up, after the tag replay): a missing file leaves the table as the
// constructor and the replayed tags left it. A file shorter than the table fills the rest
// with 0 (averages with MinNumAverages). A line that is not a number of the table's kind is
// not read as 0: the whole file is refused with a message naming the line, and the table keeps
// its previous values (the dB table, cleared before every load, stays all 0).
#pragma once

#include <string>

// Writes the instrument identification file "/vr480/instid" inside the remount bracket: the
// text as the shell's "echo" would print it unquoted (words separated by single spaces, then
// LF), with the command line "echo TEXT > /vr480/instid" cut to 99 characters by shortening
// the text. The file is written in code, never by handing the text to a shell, so shell
// characters in it are kept literally. Returns 0, or -1 when the read-write or the read-only
// remount failed (the file is not written when the first one fails).
int WriteInstID(const std::string& text);
