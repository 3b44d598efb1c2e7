# The renderer's CPU-side tools: GLSL to SPIR-V (glslang) and image files to texture
# layers (stb). Included from render/CMakeLists.txt; the renderer links brisvale_render_tools.
find_package(Threads REQUIRED)  # glslang's exported targets name Threads::Threads
find_package(glslang CONFIG REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(STB REQUIRED IMPORTED_TARGET GLOBAL stb)

add_library(brisvale_render_tools STATIC
  ${CMAKE_CURRENT_LIST_DIR}/ShaderCompiler.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ImageDecode.cpp
  ${CMAKE_CURRENT_LIST_DIR}/MacroExpansion.cpp
)
target_include_directories(brisvale_render_tools PUBLIC ${PROJECT_SOURCE_DIR})
target_link_libraries(brisvale_render_tools
  PUBLIC brisvale_content
  PRIVATE glslang::glslang glslang::SPIRV glslang::glslang-default-resource-limits PkgConfig::STB
)
if(BRISVALE_SANITIZE OR BRISVALE_FUZZ)
  # Debian builds glslang without RTTI, so UBSan's vptr check has no type info to link against.
  set_source_files_properties(${CMAKE_CURRENT_LIST_DIR}/ShaderCompiler.cpp
    PROPERTIES COMPILE_OPTIONS -fno-sanitize=vptr)
  # stb's PSD reader un-premultiplies colour that exceeds its alpha into negative floats and
  # casts them to bytes: a wrong colour on every compiler and CPU we build for, not a memory
  # fault, and nothing a caller can check before it happens. Its PNG reader copies an empty
  # IDAT chunk into a buffer not yet allocated: memcpy of 0 bytes to null, which does nothing.
  set_source_files_properties(${CMAKE_CURRENT_LIST_DIR}/ImageDecode.cpp
    PROPERTIES COMPILE_OPTIONS "-fno-sanitize=float-cast-overflow;-fno-sanitize=nonnull-attribute")
endif()
