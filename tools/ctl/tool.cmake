tessel_tool(tesselctl
  PACKAGES CLI11 nlohmann_json tomlplusplus
  LIBRARIES tessel_app tessel_receiver
  TOOLS common channels)
