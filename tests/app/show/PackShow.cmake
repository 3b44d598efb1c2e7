# The player's test show, staged into a build folder with its image and music made by ffmpeg.
find_program(BRISVALE_FFMPEG ffmpeg REQUIRED)

# brisvale_stage_test_show(DIR TARGET): DIR gets demo.ini, assets.txt, shaders/phases.glsl,
# images/tile.png (64 x 64, one blue) and music/song.flac (1.000 s, 440 Hz, stereo, 44.1 kHz).
function(brisvale_stage_test_show dir target)
  set(src ${PROJECT_SOURCE_DIR}/tests/app/show)
  set(outputs ${dir}/demo.ini ${dir}/assets.txt ${dir}/shaders/phases.glsl ${dir}/images/tile.png
      ${dir}/music/song.flac)
  add_custom_command(OUTPUT ${outputs}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${dir}/shaders ${dir}/images ${dir}/music
    COMMAND ${CMAKE_COMMAND} -E copy ${src}/demo.ini ${src}/assets.txt ${dir}/
    COMMAND ${CMAKE_COMMAND} -E copy ${src}/shaders/phases.glsl ${dir}/shaders/
    COMMAND ${BRISVALE_FFMPEG} -nostdin -v error -y -f lavfi -i color=c=0x2040ff:s=64x64
            -frames:v 1 ${dir}/images/tile.png
    COMMAND ${BRISVALE_FFMPEG} -nostdin -v error -y -f lavfi -i sine=frequency=440:sample_rate=44100:duration=1
            -ac 2 -c:a flac ${dir}/music/song.flac
    DEPENDS ${src}/demo.ini ${src}/assets.txt ${src}/shaders/phases.glsl
    COMMENT "Staging the player's test show"
    VERBATIM)
  add_custom_target(${target} DEPENDS ${outputs})
endfunction()
