# Reads the build's version from git, at every build: `git describe --tags --dirty`, or the commit
# (with "-dirty") where no tag is; "unknown" outside a git work tree of its own (a source archive).
# Writes KeflBuildVersion.h and version.txt into OUTPUT_DIR, each only when its text changes, so
# that an unchanged version rebuilds nothing.
# Usage: cmake -DSOURCE_DIR=... -DOUTPUT_DIR=... -P GitVersion.cmake
set(version "unknown")
find_program(GIT_EXECUTABLE git)
if(GIT_EXECUTABLE)
    execute_process(COMMAND "${GIT_EXECUTABLE}" -C "${SOURCE_DIR}" rev-parse --show-toplevel
                    OUTPUT_VARIABLE top RESULT_VARIABLE top_result OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
    get_filename_component(top "${top}" REALPATH)
    get_filename_component(source "${SOURCE_DIR}" REALPATH)
    # A source archive unpacked inside another work tree is not that tree's commit.
    if(top_result EQUAL 0 AND top STREQUAL source)
        execute_process(COMMAND "${GIT_EXECUTABLE}" -C "${SOURCE_DIR}" describe --tags --dirty --always
                        OUTPUT_VARIABLE described RESULT_VARIABLE describe_result OUTPUT_STRIP_TRAILING_WHITESPACE
                        ERROR_QUIET)
        if(describe_result EQUAL 0 AND NOT described STREQUAL "")
            set(version "${described}")
        endif()
    endif()
endif()
file(CONFIGURE OUTPUT "${OUTPUT_DIR}/KeflBuildVersion.h"
     CONTENT "// Generated at build time from git: the version every binary and the package carry.\n#define KEFL_BUILD_VERSION_STR \"${version}\"\n#define KEFL_BUILD_VERSION_WSTR L\"${version}\"\n")
file(CONFIGURE OUTPUT "${OUTPUT_DIR}/version.txt" CONTENT "${version}\n")
