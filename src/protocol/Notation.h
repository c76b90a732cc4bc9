// Channel numbering. Clients name a logical channel in dot notation, "c.m" (optical channel c
// and multiplexer position m, each 1-4), or in legacy notation, one number n = 4(m - 1) + c
// (1-16). Replies that name channels answer in the notation the client used.
#pragma once

// Converts a channel text to legacy (legacy = true) or dot notation; *isLegacy tells which
// notation the text was in. The text is returned unchanged when it is in the wanted notation.
// The result stays valid until the calling thread's next conversion.
const char* Notation(const char* channel, bool legacy, bool* isLegacy);
const char* Notation(int channel, bool legacy, bool* isLegacy);
