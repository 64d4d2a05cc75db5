# Finds elfutils' libdw (headers elfutils/libdwfl.h, library dw), which the
# default host uses to print source lines in stack traces. Defines
# VrkLibdw_FOUND and the imported target VrkLibdw::libdw. Installed with the
# vrk package, which looks it up again when the default host was built with it.
find_path(VrkLibdw_INCLUDE_DIR elfutils/libdwfl.h)
find_library(VrkLibdw_LIBRARY dw)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(VrkLibdw REQUIRED_VARS VrkLibdw_LIBRARY VrkLibdw_INCLUDE_DIR)
mark_as_advanced(VrkLibdw_INCLUDE_DIR VrkLibdw_LIBRARY)
if(VrkLibdw_FOUND AND NOT TARGET VrkLibdw::libdw)
  add_library(VrkLibdw::libdw UNKNOWN IMPORTED)
  set_target_properties(VrkLibdw::libdw PROPERTIES
    IMPORTED_LOCATION "${VrkLibdw_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${VrkLibdw_INCLUDE_DIR}")
endif()
