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
// Loading (at start-up, after the tag replay) goes line by line, as the instrument always has:
// line i gives entry i, read the way the C library reads the start of a line (strtoul for the
// integer tables, strtod for distances: leading white space, then the longest number there is,
// so "12abc" reads 12 and garbage reads 0; an integer too large for its entry keeps its low
// bits, as the C conversion does). One departure: a distance that reads as infinite or NaN
// reads 0, since the time-of-flight compensation cannot use it. A line that is not wholly one
// number of its entry's kind (white space around it aside), or is longer than 99 characters
// (only the first 99 are read), is still read that way, and the file's bad lines are named on
// the console in one line before its "... data loaded." line:
//
//   "references.dat: line 3 is not a number; read as the C library reads it.\n"
//   "references.dat: lines 3, 17 are not numbers; read as the C library reads them.\n"
//   "references.dat: lines 1, 2, 3, 4, 5, 6, 7, 8, 9, 10 and 3990 more are not numbers; read
//    as the C library reads them.\n" (on one line: at most ten numbers are listed)
//
// A file with fewer lines leaves the rest at 0 (averages at MinNumAverages); blank lines at its
// end do not count; lines beyond the table are ignored. Only the first 4 MiB of a text file
// are read (ten times what the longest valid file takes), so a binary or runaway file costs a
// bounded read. A missing file, or one that is not a regular file, leaves the table as the
// constructor and the replayed tags left it ("Error opening ... file."), except the dB table,
// which is cleared before every load. The gain file takes whole 4-byte entries up to its
// length: a short file leaves the entries it does not reach unchanged, a longer one is read
// to 1,048,560 bytes and the rest is ignored (each with a console line).
#pragma once

#include <string>

class CTagManager;

// Loads the tag file ("/vr480/vr480.tag") into `tags` at start-up. A missing file leaves the
// list empty (the built-in defaults; "Error opening input Tag File ..."). A tag file that
// exists but cannot be used (a directory, no permission, a read error, larger than 64 MiB) is
// named on the console,
//   "Cannot read settings file PATH: REASON. Using the baseline settings.\n",
// and the baseline tags that a new instrument's tag file carries are loaded instead, so that
// the laser still sweeps where it should.
void LoadTagFile(CTagManager& tags);

// Writes the instrument identification file "/vr480/instid" inside the remount bracket: the
// text as the shell's "echo" would print it unquoted (words separated by single spaces, then
// LF), with the command line "echo TEXT > /vr480/instid" cut to 99 characters by shortening
// the text. The file is written in code, never by handing the text to a shell, so shell
// characters in it are kept literally. Returns 0, or -1 when the read-write or the read-only
// remount failed (the file is not written when the first one fails).
int WriteInstID(const std::string& text);
