# Toolchain for 64-bit ARM: vectors and fused multiply-add of another processor.
set(cross_machine aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
