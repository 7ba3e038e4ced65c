tessel_tool(tessel-listen
  PACKAGES CLI11 fmt pcap Threads
  LIBRARIES tessel_receiver
  TOOLS files channels)
