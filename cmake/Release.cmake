# What an administrator carries to the recovery medium: `cmake --install` lays out the recovery
# host's folder (KEFL.dll, keflhost.exe, keflrestore.exe, an example trace.ini and a README), and
# the target `release` packs it as KEFL-<version>-win64.zip, with the debug information of the
# three binaries in KEFL-<version>-win64-symbols.zip and SHA256SUMS beside them. Nothing of the
# tests, the benchmarks or the Wine stand-ins (keflwine.dll) goes in.
set(kefl_shipped KEFL keflhost keflrestore)

# Each binary's debug information, kept apart as it was built (kefl_keep_symbols).
foreach(shipped ${kefl_shipped})
    install(FILES "${KEFL_SYMBOLS_DIR}/$<TARGET_FILE_NAME:${shipped}>.debug" DESTINATION . COMPONENT symbols)
endforeach()

install(TARGETS ${kefl_shipped} RUNTIME DESTINATION . COMPONENT runtime)
# The installed copies lose their debug information and name their .debug file (by name and
# checksum), where a debugger finds it beside them.
foreach(shipped ${kefl_shipped})
    install(CODE "
        set(installed \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/$<TARGET_FILE_NAME:${shipped}>\")
        execute_process(COMMAND \"${CMAKE_OBJCOPY}\" --strip-all
                                \"--add-gnu-debuglink=${KEFL_SYMBOLS_DIR}/$<TARGET_FILE_NAME:${shipped}>.debug\"
                                \"\${installed}\" RESULT_VARIABLE stripped)
        if(NOT stripped EQUAL 0)
            message(FATAL_ERROR \"cannot strip \${installed}\")
        endif()" COMPONENT runtime)
endforeach()
install(FILES release/trace.ini DESTINATION . COMPONENT runtime)
# The administrator's README names the version it came with, read at install time.
install(CODE "
    file(STRINGS \"${KEFL_VERSION_DIR}/version.txt\" KEFL_VERSION LIMIT_COUNT 1)
    configure_file(\"${PROJECT_SOURCE_DIR}/release/README.txt\" \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/README.txt\" @ONLY)
    " COMPONENT runtime)

# The two archives, one per component, named with the version the binaries carry.
set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_NAME KEFL)
set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime symbols)
set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY OFF)
set(CPACK_PACKAGE_DIRECTORY "${CMAKE_BINARY_DIR}/package")
set(CPACK_PROJECT_CONFIG_FILE "${PROJECT_SOURCE_DIR}/cmake/CPackVersion.cmake")
set(CPACK_KEFL_VERSION_FILE "${KEFL_VERSION_DIR}/version.txt")
include(CPack)

# cmake --build <build> --target release: the binaries, the archives, and SHA256SUMS.
add_custom_target(release
    COMMAND ${CMAKE_COMMAND} -E rm -rf "${CMAKE_BINARY_DIR}/package"
    COMMAND ${CMAKE_CPACK_COMMAND} --config "${CMAKE_BINARY_DIR}/CPackConfig.cmake"
    COMMAND ${CMAKE_COMMAND} -DPACKAGE_DIR=${CMAKE_BINARY_DIR}/package -P "${PROJECT_SOURCE_DIR}/cmake/Checksums.cmake"
    WORKING_DIRECTORY "${CMAKE_BINARY_DIR}"
    COMMENT "Packing KEFL-<version>-win64.zip and its symbols"
    VERBATIM)
add_dependencies(release ${kefl_shipped} kefl_version)
