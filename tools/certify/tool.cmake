tessel_tool(tessel-certify
  PACKAGES CLI11 fmt nlohmann_json
  LIBRARIES tessel_receiver
  TOOLS common judge ctl files capture relay listen)
