// The event log ("vr480.log"). Writing and reading it arrive with the log commands; until
// then entries are dropped.
#pragma once

class CDataLogger {
 public:
  CDataLogger() = default;
};
