# Signs an install folder from the inside out: each library, the log-in program, the bundle.
#
#   cmake -D FOLDER=... -D IDENTITY=... -P sign.cmake
#
# An identity other than "-" (ad hoc) gets the hardened runtime and a timestamp, which Apple
# requires for notarisation. Fails when anything cannot be signed, or does not pass strict
# verification afterwards.
set(sign codesign --force --sign ${IDENTITY})
if(NOT IDENTITY STREQUAL "-")
    list(APPEND sign --options runtime --timestamp)
endif()

file(GLOB libraries ${FOLDER}/Korvane.app/Contents/Frameworks/*)
foreach(library IN LISTS libraries)
    if(NOT IS_SYMLINK ${library})
        execute_process(COMMAND ${sign} ${library} COMMAND_ERROR_IS_FATAL ANY)
    endif()
endforeach()
set(program ${FOLDER}/Korvane)
set(bundle ${FOLDER}/Korvane.app)
execute_process(COMMAND ${sign} --identifier com.mervix.korvane.log-in ${program}
                COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${sign} ${bundle} COMMAND_ERROR_IS_FATAL ANY)

foreach(signed IN ITEMS ${program} ${bundle})
    execute_process(COMMAND codesign --verify --strict --verbose=2 ${signed}
                    COMMAND_ERROR_IS_FATAL ANY)
endforeach()
