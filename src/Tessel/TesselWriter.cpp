// The one instance of the queue writer that the tables use, compiled once.
#include "Tessel/TesselWriter.h"

namespace Tessel {

bool (*writerStepHook)(WriterStep step) = nullptr;

template class TesselWriter<BasicSlot, TesselPos>;

}  // namespace Tessel
