tessel_tool(tessel-capture
  PACKAGES CLI11 fmt pcap
  LIBRARIES tessel_app
  PROGRAM_LIBRARIES tessel_program
  TOOLS common files)
