tessel_tool_library()
