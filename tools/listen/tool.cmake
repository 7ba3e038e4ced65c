tessel_tool(tessel-listen
  PACKAGES CLI11 fmt
  LIBRARIES tessel_receiver)
