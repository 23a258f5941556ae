# Packaging of libipc_db in two install components (three with Salvage,
# below). Runtime is what goes on
# the device: libipc_db.so.1 and libipc_platform.so.1 (their versioned
# files), nothing else. Development is what an application's build needs:
# the public headers and the platform stand-ins' headers in include/ipc_db,
# the unversioned .so links, a CMake package (find_package(ipc_db CONFIG
# REQUIRED), targets ipc_db::ipc_db and ipc_db::ipc_platform), ipc_db.pc for
# pkg-config and the armhf toolchain file. Both package files are
# relocatable: `cmake --install BUILD --prefix DIR` works for any DIR, and
# `--component Runtime --strip` installs the device's payload stripped.
# Every link of libipc_db.so also reports the size of a stripped copy, the
# figure that matters on the device's flash (written to libipc_db.size.txt).
include(CMakePackageConfigHelpers)

set(IPC_DB_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/ipc_db)
set(IPC_DB_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/ipc_db)

# The installed libipc_db.so finds libipc_platform.so beside itself, so a
# program linked with --as-needed (which records only libipc_db) still runs
# from any prefix without LD_LIBRARY_PATH.
set_target_properties(ipc_db PROPERTIES INSTALL_RPATH "$ORIGIN")

install(TARGETS ipc_db ipc_platform EXPORT ipc_dbTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT Runtime NAMELINK_COMPONENT Development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Runtime)

# The page-by-page reader of Salvage(), when built (component Salvage): a
# static library linked into the application, with a CMake file of its own
# that ipc_dbConfig.cmake includes when present.
if(TARGET ipc_db_salvage)
  install(TARGETS ipc_db_salvage EXPORT ipc_dbSalvageTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Salvage)
  install(EXPORT ipc_dbSalvageTargets NAMESPACE ipc_db:: FILE ipc_dbSalvageTargets.cmake
          DESTINATION ${IPC_DB_INSTALL_CMAKEDIR} COMPONENT Salvage)
endif()

# The repair tool, on request only (component RepairTool): bin/sqlite3, the
# command RepairDB runs, over the device's sqlcipher shell
# (IPC_DB_REPAIR_SHELL). Installed with --prefix /usr/app it is the device's
# /usr/app/bin/sqlite3.
install(PROGRAMS ${CMAKE_BINARY_DIR}/tools/install/sqlite3
        DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT RepairTool EXCLUDE_FROM_ALL)

# The stand-ins' headers go along with the stand-ins only: with the device's
# own libraries, their headers come from the device's SDK.
file(GLOB IPC_DB_PUBLIC_HEADERS CONFIGURE_DEPENDS
     ${CMAKE_CURRENT_SOURCE_DIR}/src_db/include/*.h)
if(NOT IPC_DB_USES_DEVICE_PLATFORM)
  file(GLOB IPC_DB_PLATFORM_HEADERS CONFIGURE_DEPENDS
       ${CMAKE_CURRENT_SOURCE_DIR}/platform/include/*.h)
  list(APPEND IPC_DB_PUBLIC_HEADERS ${IPC_DB_PLATFORM_HEADERS})
endif()
install(FILES ${IPC_DB_PUBLIC_HEADERS} DESTINATION ${IPC_DB_INSTALL_INCLUDEDIR}
        COMPONENT Development)

install(EXPORT ipc_dbTargets NAMESPACE ipc_db:: FILE ipc_dbTargets.cmake
        DESTINATION ${IPC_DB_INSTALL_CMAKEDIR} COMPONENT Development)
configure_package_config_file(
  ${CMAKE_CURRENT_LIST_DIR}/ipc_dbConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/package/ipc_dbConfig.cmake
  INSTALL_DESTINATION ${IPC_DB_INSTALL_CMAKEDIR})
write_basic_package_version_file(
  ${CMAKE_CURRENT_BINARY_DIR}/package/ipc_dbConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/package/ipc_dbConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/package/ipc_dbConfigVersion.cmake
        DESTINATION ${IPC_DB_INSTALL_CMAKEDIR} COMPONENT Development)
# The cross toolchain file goes along, so that an application's own armhf
# build uses it from the installed package:
#   -DCMAKE_TOOLCHAIN_FILE=<prefix>/lib/cmake/ipc_db/toolchain-armhf.cmake
#   -DIPC_DB_ARMHF_SYSROOT=<folder made by scripts/make-armhf-sysroot.sh>
install(FILES ${CMAKE_CURRENT_LIST_DIR}/toolchain-armhf.cmake
        DESTINATION ${IPC_DB_INSTALL_CMAKEDIR} COMPONENT Development)

# pkg-config: the prefix is found from the .pc file's own folder.
set(IPC_DB_PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH IPC_DB_PC_TO_PREFIX /root/${IPC_DB_PC_DIR} /root)
string(REGEX REPLACE "/$" "" IPC_DB_PC_TO_PREFIX "${IPC_DB_PC_TO_PREFIX}")
# Programs link the platform library themselves only when it is the stand-in
# (tests and tools use its log sink); the device's libraries are needed by
# libipc_db.so and listed as private.
if(IPC_DB_USES_DEVICE_PLATFORM)
  set(IPC_DB_PC_LIBS "-lipc_db")
  set(IPC_DB_PC_LIBS_PRIVATE "")
  foreach(lib IN LISTS IPC_DB_PLATFORM_LIBRARIES)
    if(IS_ABSOLUTE "${lib}")
      string(APPEND IPC_DB_PC_LIBS_PRIVATE " ${lib}")
    else()
      string(APPEND IPC_DB_PC_LIBS_PRIVATE " -l${lib}")
    endif()
  endforeach()
else()
  set(IPC_DB_PC_LIBS "-lipc_db -lipc_platform")
  set(IPC_DB_PC_LIBS_PRIVATE "")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/ipc_db.pc.in
               ${CMAKE_CURRENT_BINARY_DIR}/package/ipc_db.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/package/ipc_db.pc
        DESTINATION ${IPC_DB_PC_DIR} COMPONENT Development)

# Stripped size, measured on a stripped copy after every link.
if(CMAKE_STRIP)
  if(CMAKE_LIBRARY_ARCHITECTURE)
    set(IPC_DB_SIZE_LABEL "${CMAKE_LIBRARY_ARCHITECTURE}, ${CMAKE_BUILD_TYPE}")
  else()
    set(IPC_DB_SIZE_LABEL "${CMAKE_SYSTEM_PROCESSOR}, ${CMAKE_BUILD_TYPE}")
  endif()
  add_custom_command(TARGET ipc_db POST_BUILD
    COMMAND ${CMAKE_COMMAND} -DSTRIP=${CMAKE_STRIP}
            -DLIBRARY=$<TARGET_FILE:ipc_db>
            -DSTRIPPED=${CMAKE_CURRENT_BINARY_DIR}/package/libipc_db.stripped.so
            -DREPORT=${CMAKE_CURRENT_BINARY_DIR}/libipc_db.size.txt
            "-DLABEL=${IPC_DB_SIZE_LABEL}"
            -P ${CMAKE_CURRENT_LIST_DIR}/report-stripped-size.cmake
    VERBATIM)
endif()
