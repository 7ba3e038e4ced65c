tessel_tool(tessel-judge
  PACKAGES CLI11 fmt nlohmann_json Threads
  LIBRARIES tessel_base
  TOOLS common files channels)
