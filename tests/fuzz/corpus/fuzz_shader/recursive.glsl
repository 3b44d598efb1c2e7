#include "a.glsl"
//>> a.glsl
#include "main.glsl"
