tessel_tool_library(
  PACKAGES ZLIB zstd)
