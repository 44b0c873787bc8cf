# Every public header compiles alone, in whatever order its users include it.
file(GLOB_RECURSE public_headers RELATIVE ${PROJECT_SOURCE_DIR}/interface CONFIGURE_DEPENDS
    ${PROJECT_SOURCE_DIR}/interface/*.h)
set(check_sources)
foreach(header IN LISTS public_headers)
    string(MAKE_C_IDENTIFIER ${header} name)
    set(source ${PROJECT_BINARY_DIR}/header_check/${name}.cpp)
    file(CONFIGURE OUTPUT ${source} CONTENT "#include \"${header}\"\n#include \"${header}\"\n")
    list(APPEND check_sources ${source})
endforeach()
add_library(header_check OBJECT ${check_sources})
target_link_libraries(header_check PRIVATE vmescape_settings Poco::Foundation Poco::Util JsonCpp::JsonCpp)
