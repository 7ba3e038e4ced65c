tessel_tool_library(
  PACKAGES zstd)
