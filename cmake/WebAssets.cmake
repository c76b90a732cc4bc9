# The status page's files (web/) are compiled into the server, so that it serves its page and
# plotting library itself: no files to install beside it, nothing fetched from the internet.
# The HTTP server is Debian's cpp-httplib (libcpp-httplib-dev).
pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
set(VR480_WEB_FILES
  "/=${CMAKE_SOURCE_DIR}/web/index.html=text/html"
  "/uPlot.iife.min.js=${CMAKE_SOURCE_DIR}/web/vendor/uplot/uPlot.iife.min.js=text/javascript"
  "/uPlot.min.css=${CMAKE_SOURCE_DIR}/web/vendor/uplot/uPlot.min.css=text/css")
set(web_deps "")
foreach(entry ${VR480_WEB_FILES})
  string(REPLACE "=" ";" parts "${entry}")
  list(GET parts 1 file)
  list(APPEND web_deps "${file}")
endforeach()
string(REPLACE ";" "\\;" web_list "${VR480_WEB_FILES}")
add_custom_command(
  OUTPUT ${CMAKE_BINARY_DIR}/generated/WebAssetsData.cpp
  COMMAND ${CMAKE_COMMAND} "-DOUT=${CMAKE_BINARY_DIR}/generated/WebAssetsData.cpp" "-DFILES=${web_list}"
          -P ${CMAKE_SOURCE_DIR}/cmake/EmbedFiles.cmake
  DEPENDS ${web_deps} ${CMAKE_SOURCE_DIR}/cmake/EmbedFiles.cmake
  COMMENT "Embedding the status page")
target_sources(vr480core PRIVATE ${CMAKE_BINARY_DIR}/generated/WebAssetsData.cpp)
target_link_libraries(vr480core PRIVATE PkgConfig::HTTPLIB)
