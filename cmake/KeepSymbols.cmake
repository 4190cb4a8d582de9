# kefl_keep_symbols(target): the binary's debug information kept apart as it is built, as
# <binary>.debug in build/symbols, for the release's symbols archive (cmake/Release.cmake).
set(KEFL_SYMBOLS_DIR "${CMAKE_BINARY_DIR}/symbols")
function(kefl_keep_symbols target)
    add_custom_command(TARGET ${target} POST_BUILD
        COMMAND ${CMAKE_COMMAND} -E make_directory "${KEFL_SYMBOLS_DIR}"
        COMMAND ${CMAKE_OBJCOPY} --only-keep-debug "$<TARGET_FILE:${target}>"
                "${KEFL_SYMBOLS_DIR}/$<TARGET_FILE_NAME:${target}>.debug"
        VERBATIM)
endfunction()
