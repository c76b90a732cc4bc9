// The settings tag store: every persistent setting is kept as its canonical command line and
// replayed through the command interpreter at start-up. Its load, save and replacement rules
// arrive with the client protocol; until then the store is empty.
#pragma once

class CTagManager {
 public:
  CTagManager() = default;
};
