# The device's own platform libraries in place of the host stand-ins.
# Included by the top-level CMakeLists.txt when IPC_DB_PLATFORM_LIBRARIES
# names them: target ipc_platform then builds nothing and only carries those
# libraries (names such as "zb_log;securec", found by the linker in the
# target's sysroot, or full paths), so that libipc_db.so records them as
# needed libraries and an installed package hands them on.
#
# The library's sources are compiled against IPC_DB_PLATFORM_INCLUDE_DIRS,
# by default this tree's platform/include: its declarations (C linkage) are
# those of the device's libraries, so the stand-in headers serve for both.
# The host-only parts of those headers (the log sink) are used by the tests
# alone, which therefore need the stand-ins: a device-platform build has
# IPC_DB_BUILD_TESTS off.
set(IPC_DB_PLATFORM_INCLUDE_DIRS "${CMAKE_CURRENT_SOURCE_DIR}/platform/include"
    CACHE STRING "Headers declaring the device's logging and bounded functions")

if(IPC_DB_BUILD_TESTS)
  message(FATAL_ERROR
    "IPC_DB_PLATFORM_LIBRARIES is set: the tests need the host stand-ins "
    "(their log sink). Configure with -DIPC_DB_BUILD_TESTS=OFF, e.g. from "
    "the release or armhf-release preset.")
endif()

add_library(ipc_platform INTERFACE)
add_library(ipc_db::ipc_platform ALIAS ipc_platform)
foreach(dir IN LISTS IPC_DB_PLATFORM_INCLUDE_DIRS)
  target_include_directories(ipc_platform INTERFACE $<BUILD_INTERFACE:${dir}>)
endforeach()
target_link_libraries(ipc_platform INTERFACE ${IPC_DB_PLATFORM_LIBRARIES})
set(IPC_DB_USES_DEVICE_PLATFORM ON)
