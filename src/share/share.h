#pragma once
// Share: export of a staged plim to a movie or a GIF, named and placed where the user asked,
// and the thumbnails the library shows for each plim.

#include "share/clipboard.h"
#include "share/gif_sink.h"
#include "share/plim_thumbs.h"
#include "share/share_engine.h"
#include "share/share_failure.h"
#include "share/share_options.h"
#include "share/share_plim.h"
#include "share/share_progress.h"
#include "share/share_render.h"
