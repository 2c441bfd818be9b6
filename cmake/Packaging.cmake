# Installation and packaging. Applications link one library, libQNiCloud (shared, and static for
# those who want it), made of the objects of the four layers that the build tree keeps as separate
# static libraries; the tests, benchmarks and tools go on linking those, so nothing in the build
# tree ever sees the same object twice. The layers compile as position-independent code so that
# their objects can go into the shared library; no semantic interposition, because nobody
# replaces the library's functions at load time and it would stop calls inside a layer from being
# inlined.

# A sanitized build is for finding faults, not for installing.
if(QN_SANITIZE)
    return()
endif()

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(QN_LAYERS qn_runtime qn_util qn_platform QNiCloud)
set_target_properties(${QN_LAYERS} PROPERTIES POSITION_INDEPENDENT_CODE ON)
foreach(layer IN LISTS QN_LAYERS)
    target_compile_options(${layer} PRIVATE -fno-semantic-interposition)
endforeach()

# The utility layer found ICU in its own directory; its imported targets are not visible here.
find_package(ICU REQUIRED COMPONENTS uc i18n)

# QNiCloud_shared and QNiCloud_static, both named libQNiCloud; the package calls them
# qn::QNiCloud and qn::QNiCloud_static.
foreach(kind IN ITEMS shared static)
    string(TOUPPER ${kind} type)
    set(target QNiCloud_${kind})
    add_library(${target} ${type})
    foreach(layer IN LISTS QN_LAYERS)
        target_sources(${target} PRIVATE $<TARGET_OBJECTS:${layer}>)
    endforeach()
    set_target_properties(${target} PROPERTIES
        OUTPUT_NAME QNiCloud
        LINKER_LANGUAGE CXX
        LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib
        ARCHIVE_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
    target_compile_features(${target} INTERFACE cxx_std_20)
    target_include_directories(${target} INTERFACE
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    # The public headers use fmt and threads; ICU, SQLite, expat and libcurl stay inside
    # the library.
    target_link_libraries(${target}
        PUBLIC fmt::fmt Threads::Threads
        PRIVATE ICU::uc ICU::i18n SQLite::SQLite3 EXPAT::EXPAT CURL::libcurl)
endforeach()
set_target_properties(QNiCloud_shared PROPERTIES
    EXPORT_NAME QNiCloud
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR})
set_target_properties(QNiCloud_static PROPERTIES EXPORT_NAME QNiCloud_static)
# Every symbol the layers use must come from a library named here, or the package's dependency
# lists would be wrong without anyone noticing until an application fails to link.
target_link_options(QNiCloud_shared PRIVATE -Wl,--no-undefined)

set(QN_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/QNiCloud)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    FILES_MATCHING PATTERN "*.h")
install(TARGETS QNiCloud_shared EXPORT QNiCloudTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS QNiCloud_static EXPORT QNiCloudStaticTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
# A stripping install (`--strip`, and CPack) leaves static libraries alone, and debug information
# makes this one a hundred megabytes; the symbol table the linker needs stays.
if(CMAKE_STRIP)
    set(QN_INSTALLED_ARCHIVE
        "\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/libQNiCloud.a")
    install(CODE "
        if(CMAKE_INSTALL_DO_STRIP AND EXISTS \"${QN_INSTALLED_ARCHIVE}\")
            execute_process(COMMAND \"${CMAKE_STRIP}\" --strip-debug \"${QN_INSTALLED_ARCHIVE}\")
        endif()")
endif()
# Two export sets, so that an application that only links the shared library needs neither ICU's
# nor SQLite's development files (see QNiCloudConfig.cmake.in).
install(EXPORT QNiCloudTargets NAMESPACE qn:: DESTINATION ${QN_CMAKE_DIR})
install(EXPORT QNiCloudStaticTargets NAMESPACE qn:: DESTINATION ${QN_CMAKE_DIR})

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/QNiCloudConfig.cmake.in
    ${PROJECT_BINARY_DIR}/QNiCloudConfig.cmake
    INSTALL_DESTINATION ${QN_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/QNiCloudConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/QNiCloudConfig.cmake
              ${PROJECT_BINARY_DIR}/QNiCloudConfigVersion.cmake
        DESTINATION ${QN_CMAKE_DIR})

# The pkg-config file finds its prefix from its own place, so it stays right for
# `cmake --install --prefix` and inside the Debian package alike.
file(RELATIVE_PATH QN_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" QN_PC_TO_PREFIX "${QN_PC_TO_PREFIX}")
set(QN_PC_THREADS ${CMAKE_THREAD_LIBS_INIT})
configure_file(${CMAKE_CURRENT_LIST_DIR}/QNiCloud.pc.in ${PROJECT_BINARY_DIR}/QNiCloud.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/QNiCloud.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The command line links the layers statically, as it does in the build tree.
if(TARGET qnicloud)
    install(TARGETS qnicloud RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

# One Debian package with the shared and static libraries, the headers, the CMake and pkg-config
# files and the command line: the library has a single user-facing version and no other package
# depends on it yet, so a runtime/-dev split would only add a second package to keep in step.
# Because it carries the development files, it depends on fmt's (the public headers include
# fmt); ICU's and SQLite's are only needed to link the static library, so they are recommended.
# The shared libraries the binaries need come from dpkg-shlibdeps.
set(QN_PACKAGE_CONTACT "QNiCloud maintainers <maintainers@example.org>"
    CACHE STRING "Maintainer field of the Debian package")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qnicloud)
set(CPACK_PACKAGE_VENDOR QNiCloud)
set(CPACK_PACKAGE_CONTACT ${QN_PACKAGE_CONTACT})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Library that keeps a desktop application's documents in a cloud-drive container")
set(CPACK_PACKAGE_DESCRIPTION
    "A C++20 library through which a document application does every file operation on a\n\
cloud-drive container, under file coordination. It keeps a metadata tree of the container in\n\
step with a live metadata query, tells the application on its main thread what appeared,\n\
changed or disappeared, follows the user's account, schedules downloads and resolves version\n\
conflicts. Ships the shared and static libraries, headers, CMake and pkg-config files and the\n\
qnicloud command line with its embedded cloud drive.")
set(CPACK_STRIP_FILES TRUE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libfmt-dev")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "libicu-dev, libsqlite3-dev, libexpat1-dev, libcurl4-openssl-dev, pkg-config")
include(CPack)
