# Writes the message compiler's input from the driver's message table. Run as a script:
#   cmake -DTABLE=include/vrkfs/messages.def -DOUTPUT=messages.mc -P cmake/messages.cmake
# A text goes into the resource as it stands here, and has to end in CR LF there. The compiler refuses a neutral
# language; the resource script's language is made neutral afterwards.
file(STRINGS ${TABLE} rows REGEX "^VRKFS_MESSAGE\\(")
set(mc "MessageIdTypedef=ULONG
SeverityNames=(Informational=0x1 Warning=0x2 Error=0x3)
FacilityNames=(VrkFs=0x5)
LanguageNames=(Neutral=0x409:MSG00409)
")
foreach(row IN LISTS rows)
    if(NOT row MATCHES "^VRKFS_MESSAGE\\(([A-Za-z]+), (0x[0-9A-F]+), ([A-Za-z]+), \"(.*)\"\\)$")
        message(FATAL_ERROR "${TABLE}: cannot read: ${row}")
    endif()
    string(APPEND mc "
MessageId=${CMAKE_MATCH_2}
Facility=VrkFs
Severity=${CMAKE_MATCH_3}
SymbolicName=VRKFS_MC_${CMAKE_MATCH_1}
Language=Neutral
${CMAKE_MATCH_4}
.
")
endforeach()
string(REPLACE "\n" "\r\n" mc "${mc}")
file(WRITE ${OUTPUT} "${mc}")
