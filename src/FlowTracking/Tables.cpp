// The one compilation of the generic table family for the seven flow tables.
#include "FlowTracking/Tables.h"

FLOWTRACKING_ALL_TABLE_TEMPLATES();
