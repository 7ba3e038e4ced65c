tessel_tool(tessel-listen
  PACKAGES CLI11 fmt pcap
  LIBRARIES tessel_receiver
  TOOLS files)
