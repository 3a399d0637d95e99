# libxml2 is loaded by its soname, not linked: see src/pki/xml_library.h.
list(GET LIBXML2_LIBRARIES 0 xml_library)
execute_process(COMMAND ${CMAKE_READELF} -d -W ${xml_library}
  OUTPUT_VARIABLE xml_dynamic COMMAND_ERROR_IS_FATAL ANY)
if(NOT xml_dynamic MATCHES "SONAME[^[]*\\[([^]]+)\\]")
  message(FATAL_ERROR "${xml_library} has no soname: a shared libxml2 is needed")
endif()
set(PKI_XML_SONAME ${CMAKE_MATCH_1})
