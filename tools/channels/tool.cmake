tessel_tool_library(
  PACKAGES nlohmann_json
  LIBRARIES tessel_base
  TOOLS common)
