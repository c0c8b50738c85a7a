# cmake --install: the two libraries, their public headers, and what lets CMake (find_package(nimdb))
# and pkg-config find them. Everything is found relative to itself, so a tree that was installed
# under one prefix can be moved to another.
include(CMakePackageConfigHelpers)

if(NOT WIN32)
    # libnimdb finds libnim beside it, wherever the two are put.
    set_target_properties(nimdb PROPERTIES INSTALL_RPATH "$ORIGIN")
endif()
install(TARGETS nim nimdb EXPORT nimdbTargets
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
if(WIN32)
    # Other compilers make their import libraries from these.
    install(FILES ${CMAKE_BINARY_DIR}/libnim.def ${CMAKE_BINARY_DIR}/libnimdb.def
        DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()

# The fault hooks are not in the shipped libraries, and the index module's insides are its own.
install(DIRECTORY base/include/nim DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    FILES_MATCHING PATTERN "*.h" PATTERN "fault.h" EXCLUDE)
install(DIRECTORY base/include/database DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    FILES_MATCHING PATTERN "*.h" PATTERN "indexinternal.h" EXCLUDE)

set(package ${CMAKE_INSTALL_LIBDIR}/cmake/nimdb)
install(EXPORT nimdbTargets NAMESPACE nimdb:: DESTINATION ${package})
configure_package_config_file(
    cmake/nimdbConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/nimdbConfig.cmake
    INSTALL_DESTINATION ${package})
write_basic_package_version_file(
    ${CMAKE_CURRENT_BINARY_DIR}/nimdbConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/nimdbConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/nimdbConfigVersion.cmake
    DESTINATION ${package})

if(NOT WIN32)
    file(RELATIVE_PATH PC_PREFIX
        ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
    foreach(library nim nimdb)
        configure_file(cmake/${library}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${library}.pc @ONLY)
        install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${library}.pc
            DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
    endforeach()
endif()
