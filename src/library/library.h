#pragma once
// The plims on disk: where the library folder is, the files of one plim, their
// permanent identities, the records the library lists, remembered locations, and the
// edits document with its looks.

#include "library/listing_cache.h"
#include "library/look_store.h"
#include "library/plim4_migration.h"
#include "library/plim_document.h"
#include "library/plim_edits.h"
#include "library/plim_identity.h"
#include "library/plim_identity_index.h"
#include "library/plim_look.h"
#include "library/plim_plan.h"
#include "library/plim_record.h"
#include "library/plim_store.h"
#include "library/plims_folder_move.h"
#include "library/scoped_path_memory.h"
#include "library/storage_root.h"
