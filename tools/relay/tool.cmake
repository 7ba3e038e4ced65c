tessel_tool(tessel-relay
  PACKAGES CLI11 pcap
  LIBRARIES tessel_receiver
  TOOLS common files listen capture)
