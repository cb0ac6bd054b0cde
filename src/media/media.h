#pragma once
// Media: reading and writing movies and sound over FFmpeg, shared by capture, stage and
// share. Nothing here knows about plims, plans or the stage.
