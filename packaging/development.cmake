# Headers, the CMake package and the pkg-config file: what a program is built with.
include(CMakePackageConfigHelpers)

install(FILES ${PROJECT_SOURCE_DIR}/Vantora/Vantora DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Vantora COMPONENT dev)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/include/Vantora DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev
    FILES_MATCHING PATTERN *.h)

set(package_cmake ${CMAKE_INSTALL_LIBDIR}/cmake/Vantora)
install(EXPORT VantoraTargets NAMESPACE Vantora:: DESTINATION ${package_cmake} COMPONENT dev)
configure_package_config_file(cmake/VantoraConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/VantoraConfig.cmake
    INSTALL_DESTINATION ${package_cmake})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/VantoraConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/VantoraConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/VantoraConfigVersion.cmake
    DESTINATION ${package_cmake} COMPONENT dev)

# By the way from the file itself, so that the tree can be moved; in /usr plainly, where tools know the path.
file(RELATIVE_PATH up ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" pc_prefix "\${pcfiledir}/${up}")
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set(pc_prefix /usr)
endif()
function(vnt_pkg_config name library pc_description)
    set(pc_library ${library})
    configure_file(cmake/vantora.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
endfunction()
vnt_pkg_config(vantora Vantora "Records performance data about processes on this machine")
if(TARGET VantoraBundle)
    vnt_pkg_config(vantora-bundle VantoraBundle "Reads what Vantora recorded")
endif()
