# Debian packages, one a component: `cmake --preset package`, build, `cpack --preset package`; scripts/check-package does
# all of it and tries the result.
set(VNT_MAINTAINER "Vantora developers <vantora@users.noreply.invalid>" CACHE STRING "Of the packages: name and address")


set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vantora)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${VNT_MAINTAINER})
set(CPACK_COMPONENTS_ALL library reader dev tool services)
if(TARGET VntHeapJournal32)
    list(APPEND CPACK_COMPONENTS_ALL journal32)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(same "(= ${PROJECT_VERSION})")
set(control ${CMAKE_CURRENT_SOURCE_DIR}/debian)

# vnt_package(COMPONENT NAME SECTION DEPENDS SYNOPSIS LINE...): the lines are the extended description.
function(vnt_package component name section depends synopsis)
    string(TOUPPER ${component} upper)
    list(JOIN ARGN "\n" extended)
    set(prefix CPACK_DEBIAN_${upper})
    set(${prefix}_PACKAGE_NAME ${name} PARENT_SCOPE)
    set(${prefix}_PACKAGE_SECTION ${section} PARENT_SCOPE)
    set(${prefix}_PACKAGE_DEPENDS "${depends}" PARENT_SCOPE)
    set(CPACK_COMPONENT_${upper}_DESCRIPTION "${synopsis}\n${extended}" PARENT_SCOPE)
    if(VNT_DEBIAN)
        install(FILES ${control}/copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component})
        install(FILES ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name}
            COMPONENT ${component})
    endif()
    if(VNT_DEBIAN AND EXISTS ${control}/${name}.lintian-overrides)
        install(FILES ${control}/${name}.lintian-overrides DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
            RENAME ${name} COMPONENT ${component})
    endif()
endfunction()

if(VNT_DEBIAN)
    vnt_compress(${control}/changelog ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz)
endif()
vnt_package(library libvantora1 libs "vantora-services ${same}"
    "records performance data about processes (library)"
    "Vantora records where processes spend their time, what they ask of the kernel,"
    "what they allocate and what every process of the machine uses, without"
    "changing them."
    ""
    "This is the library that programs which record are linked to.")
vnt_package(reader libvantorabundle1 libs ""
    "reads recordings of processes (library)"
    "The library with which programs read the bundles that Vantora records, record"
    "by record in the order of time, with symbols.")
vnt_package(dev libvantora-dev libdevel "libvantora1 ${same}, libvantorabundle1 ${same}"
    "records performance data about processes (development files)"
    "Headers, CMake package and pkg-config files of libVantora and libVantoraBundle,"
    "for programs that record other processes or read what was recorded.")
vnt_package(tool rumbel devel "libvantora1 ${same}"
    "records processes and shows where their time goes"
    "Attaches to processes or launches programs, records samples of their stacks,"
    "kernel events, allocations and the use of resources into a bundle, and"
    "reports what the bundle holds. Needs no set-up and no privilege for own"
    "processes.")
vnt_package(services vantora-services libs ""
    "records performance data about processes (services)"
    "The profiling server that libVantora starts when it is needed, the"
    "authorization service and the task-port daemon for who may record other"
    "users' processes, and the library that the server loads into launched"
    "programs to record their allocations.")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${control}/triggers)
set(CPACK_DEBIAN_TOOL_PACKAGE_SUGGESTS vantora-journal32)
set(CPACK_DEBIAN_SERVICES_PACKAGE_CONTROL_EXTRA ${control}/conffiles ${control}/postinst ${control}/prerm ${control}/postrm)
set(CPACK_DEBIAN_SERVICES_PACKAGE_RECOMMENDS libpam-runtime)
if(TARGET VntHeapJournal32)
    vnt_package(journal32 vantora-journal32 libs "vantora-services ${same}"
        "records allocations of 32-bit programs"
        "The library that the profiling server loads into launched programs of 32 bit"
        "to record their allocations.")
    # Whoever runs programs of 32 bit has their C library, from the package of their choice.
    set(CPACK_DEBIAN_JOURNAL32_PACKAGE_SHLIBDEPS OFF)
    set(CPACK_DEBIAN_JOURNAL32_PACKAGE_RECOMMENDS libc6-i386)
endif()
include(CPack)
