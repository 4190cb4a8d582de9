# SHA256SUMS beside the archives, in the form `sha256sum -c` reads.
# Usage: cmake -DPACKAGE_DIR=... -P Checksums.cmake
file(GLOB archives RELATIVE "${PACKAGE_DIR}" "${PACKAGE_DIR}/*.zip")
list(SORT archives)
set(sums "")
foreach(archive ${archives})
    file(SHA256 "${PACKAGE_DIR}/${archive}" sum)
    string(APPEND sums "${sum}  ${archive}\n")
endforeach()
if(sums STREQUAL "")
    message(FATAL_ERROR "no archive in ${PACKAGE_DIR}")
endif()
file(WRITE "${PACKAGE_DIR}/SHA256SUMS" "${sums}")
message(STATUS "Packed in ${PACKAGE_DIR}:\n${sums}")
