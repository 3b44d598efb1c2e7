#include "lib/stages.glsl"
#include "./lib/../colour.glsl"
//>> lib/stages.glsl
#include "../colour.glsl"
#ifdef BRISVALE_COMPUTE
layout(local_size_x = 32) in;
void scene_compute() {}
#endif
#ifdef BRISVALE_VERTEX
void scene_vertex() { gl_Position = vec4(tint(), 1.0); }
#endif
#ifdef BRISVALE_FRAGMENT
layout(location = 0) out vec4 outColour;
void scene_fragment() { outColour = vec4(tint(), 1.0); }
#endif
//>> colour.glsl
#ifndef COLOUR_GLSL
#define COLOUR_GLSL
vec3 tint() { return vec3(0.25, 0.5, 1.0); }
#endif
