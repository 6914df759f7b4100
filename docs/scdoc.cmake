# Builds one manual page:
#   cmake -DSCDOC=scdoc -DINPUT=page.N.scd -DOUTPUT=page.N -P scdoc.cmake
# scdoc writes under a temporary name that is renamed once it succeeded, so a failed run
# leaves no page behind for the next build to take as up to date.
#
# The page gets ".nh" after its .TH line: scdoc turns hyphenation off before .TH, but the
# man macros' .TH turns it on again, and paths and option names would then be broken
# across lines at made-up hyphens.
foreach(variable SCDOC INPUT OUTPUT)
  if(NOT ${variable})
    message(FATAL_ERROR "scdoc.cmake needs -D${variable}=...")
  endif()
endforeach()

get_filename_component(folder ${OUTPUT} DIRECTORY)
file(MAKE_DIRECTORY ${folder})
set(temporary ${OUTPUT}.tmp)
execute_process(COMMAND ${SCDOC}
  INPUT_FILE ${INPUT}
  OUTPUT_FILE ${temporary}
  ERROR_VARIABLE errors
  RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  file(REMOVE ${temporary})
  message(FATAL_ERROR "scdoc failed on ${INPUT} (${status}):\n${errors}")
endif()

file(READ ${temporary} roff)
string(REGEX REPLACE "(\n\\.TH [^\n]*\n)" "\\1.nh\n" roff "${roff}")
if(NOT roff MATCHES "\n\\.TH [^\n]*\n\\.nh\n")
  file(REMOVE ${temporary})
  message(FATAL_ERROR "scdoc wrote no .TH line for ${INPUT}")
endif()
file(WRITE ${temporary} "${roff}")
file(RENAME ${temporary} ${OUTPUT})
