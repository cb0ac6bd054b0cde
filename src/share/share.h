#pragma once
// Share: export of a staged plim to a movie or a GIF, named and placed where the user asked.
