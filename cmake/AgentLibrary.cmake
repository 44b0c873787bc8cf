# agent_library(<name> LINK <libraries>...)
# A shared library of the agent from every source below src/.
function(agent_library name)
    cmake_parse_arguments(arg "" "" "LINK" ${ARGN})
    file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/src/*.cpp)
    add_library(${name} SHARED ${sources})
    target_include_directories(${name} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/src)
    target_link_libraries(${name} PUBLIC ${arg_LINK} PRIVATE vmescape_settings)
    target_link_options(${name} PRIVATE LINKER:-z,defs)
    set_target_properties(${name} PROPERTIES
        BUILD_WITH_INSTALL_RPATH ON
        INSTALL_RPATH "${VMESCAPE_RUN_PATH}")
    install(TARGETS ${name} LIBRARY DESTINATION lib)
endfunction()
