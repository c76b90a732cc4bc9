// The short command list of #HELP and the full list of #ZOR_HELP.
#pragma once

extern const char kShortHelpText[];
extern const char kFullHelpText[];
extern const unsigned kShortHelpLength;
extern const unsigned kFullHelpLength;
