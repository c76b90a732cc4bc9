// The status page's files, compiled into the server from web/ (see cmake/WebAssets.cmake).
#pragma once

#include <cstddef>

struct SWebAsset {
  const char* Path;            // URL path, "/" for the page
  const char* Type;            // Content-Type
  const unsigned char* Data;
  size_t Size;
};

// The file served at `path`, or nullptr.
const SWebAsset* FindWebAsset(const char* path);
