# Toolchain for s390x: the other byte order.
set(cross_machine s390x)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
