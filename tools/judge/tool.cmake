tessel_tool(tessel-judge
  PACKAGES CLI11 fmt nlohmann_json Threads ZLIB zstd
  LIBRARIES tessel_base
  TOOLS common)
