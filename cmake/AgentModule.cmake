# agent_module(<name> LINK <libraries>...)
# A plug-in of the agent, lib<name>.so, from every source below src/. It exports its factory and
# nothing else. The objects behind it are also the static library <name>_objects, which only tests and
# benchmarks link: they look inside.
function(agent_module name)
    cmake_parse_arguments(arg "" "" "LINK" ${ARGN})
    file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/src/*.cpp)
    list(FILTER sources EXCLUDE REGEX "/CreateModule\\.cpp$")

    add_library(${name}_objects STATIC ${sources})
    target_include_directories(${name}_objects PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/src)
    target_link_libraries(${name}_objects PUBLIC framework sdk ${arg_LINK} vmescape_settings)

    set(exports ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/module.exports)
    add_library(${name} MODULE ${CMAKE_CURRENT_SOURCE_DIR}/src/CreateModule.cpp)
    target_link_libraries(${name} PRIVATE ${name}_objects)
    target_link_options(${name} PRIVATE
        LINKER:-z,defs LINKER:--version-script=${exports})
    set_target_properties(${name} PROPERTIES
        LINK_DEPENDS ${exports}
        LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/module
        BUILD_WITH_INSTALL_RPATH ON
        INSTALL_RPATH "${VMESCAPE_RUN_PATH}")
    install(TARGETS ${name} LIBRARY DESTINATION module)
endfunction()
