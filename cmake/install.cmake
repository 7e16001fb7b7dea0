# What is installed, and in which form programs find it.
include(CMakePackageConfigHelpers)

# Programs write #include <kz_tr.h>: the headers have a folder of their own, which pkg-config and the targets name.
set(KZ_TR_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/kz_tr)
install(FILES trace/kz_tr.h cu/kz_cu.h DESTINATION ${KZ_TR_INCLUDEDIR})
# One library finds the other beside it and the program finds both, wherever the prefix is.
file(RELATIVE_PATH KZ_TR_LIB_FROM_BIN ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
foreach(library kz_cu kz_tr)
    target_include_directories(${library} INTERFACE $<INSTALL_INTERFACE:${KZ_TR_INCLUDEDIR}>)
    set_target_properties(${library} PROPERTIES INSTALL_RPATH $ORIGIN)
    install(TARGETS ${library} EXPORT kz_tr LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
endforeach()
set_target_properties(kztrace PROPERTIES INSTALL_RPATH $ORIGIN/${KZ_TR_LIB_FROM_BIN})
install(TARGETS kztrace RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# find_package(kz_tr): the targets kz_tr::kz_tr and kz_tr::kz_cu
set(KZ_TR_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/kz_tr)
install(EXPORT kz_tr NAMESPACE kz_tr:: FILE kz_tr-config.cmake DESTINATION ${KZ_TR_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kz_tr-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kz_tr-config-version.cmake DESTINATION ${KZ_TR_CMAKEDIR})

# pkg-config kz_tr; its paths are relative to where the file lies, so that the prefix may be chosen when installing.
set(KZ_TR_PCDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
string(REGEX REPLACE "[^/]+" ".." KZ_TR_PREFIX_FROM_PC ${KZ_TR_PCDIR})
configure_file(cmake/kz_tr.pc.in kz_tr.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kz_tr.pc DESTINATION ${KZ_TR_PCDIR})

# cpack: one Debian package and one archive
set(CPACK_GENERATOR DEB TGZ)
set(CPACK_PACKAGE_NAME kz-tr)
set(CPACK_PACKAGE_VENDOR "The kz_tr developers")
set(CPACK_PACKAGE_CONTACT "The kz_tr developers <kz_tr@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
include(CPack)
