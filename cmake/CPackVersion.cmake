# Read by cpack: the archives are named with the version that the build wrote, the one its
# binaries carry.
file(STRINGS "${CPACK_KEFL_VERSION_FILE}" kefl_version LIMIT_COUNT 1)
set(CPACK_PACKAGE_VERSION "${kefl_version}")
set(CPACK_PACKAGE_FILE_NAME "KEFL-${kefl_version}-win64")
set(CPACK_ARCHIVE_RUNTIME_FILE_NAME "KEFL-${kefl_version}-win64")
set(CPACK_ARCHIVE_SYMBOLS_FILE_NAME "KEFL-${kefl_version}-win64-symbols")
