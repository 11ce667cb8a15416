// The one compilation of the writer for the seven flow tables.
#include "FlowTracking/TableWriters.h"

FLOWTRACKING_WRITER_TEMPLATES();
