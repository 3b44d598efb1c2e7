# Tests of the shader compiler, the image decoder and the shader interface document.
# Included from tests/render/CMakeLists.txt.
find_package(SPIRV-Tools CONFIG REQUIRED)

brisvale_test(test_shader_compiler
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/ShaderCompilerTest.cpp
  LIBS brisvale_render_tools SPIRV-Tools-static
  LABELS unit)
target_compile_definitions(test_shader_compiler PRIVATE
  BRISVALE_TEST_SHADER_DIR="${CMAKE_CURRENT_LIST_DIR}/shaders"
  BRISVALE_FRAME_INTERFACE="${PROJECT_SOURCE_DIR}/show/shaders/lib/frame.glsl")

brisvale_test(test_image_decode
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/ImageDecodeTest.cpp
  LIBS brisvale_render_tools PkgConfig::STB
  LABELS unit)

brisvale_test(test_shader_interface
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/ShaderInterfaceTest.cpp
  LIBS brisvale_render_tools SPIRV-Tools-static
  LABELS unit)
target_compile_definitions(test_shader_interface PRIVATE
  BRISVALE_TEST_SHADER_DIR="${CMAKE_CURRENT_LIST_DIR}/shaders"
  BRISVALE_TEST_DOC="${PROJECT_SOURCE_DIR}/docs/shader-interface.md"
  BRISVALE_FRAME_INTERFACE="${PROJECT_SOURCE_DIR}/show/shaders/lib/frame.glsl")
