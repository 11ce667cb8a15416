// The one compilation of the reader for the seven flow tables.
#include "FlowTracking/TableReaders.h"

FLOWTRACKING_READER_TEMPLATES();
