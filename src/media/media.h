#pragma once
// Media: reading and writing movies and sound over FFmpeg, shared by capture, stage and
// share. Nothing here knows about plims, plans or the stage. FFmpeg's own types stay
// inside media/.

#include "media/movie_reader.h"
#include "media/movie_writer.h"
#include "media/pcm_source.h"
#include "media/sound_mix.h"
#include "media/sound_mixer.h"
#include "media/sound_reader.h"
