# Link feature VRK_NEEDED: the library is recorded as needed even when the
# linker drops unreferenced libraries (--as-needed), for a library that is
# linked for the hooks it supplies to another one.
set(CMAKE_LINK_LIBRARY_USING_VRK_NEEDED
    "LINKER:--push-state,--no-as-needed" "<LINK_ITEM>" "LINKER:--pop-state")
set(CMAKE_LINK_LIBRARY_USING_VRK_NEEDED_SUPPORTED TRUE)
