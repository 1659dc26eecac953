#ifndef VELD_PLATFORM_MACHINEMODELS_H
#define VELD_PLATFORM_MACHINEMODELS_H

#include <cstddef>

/** One model of the maker's machines: its identifier ("hw.model"), its marketing
 *  name, and the processor brands ("machdep.cpu.brand_string") its machines report.
 *  Unused processor slots are null; raise the bound when a model needs more. */
struct ModelRow {
    const char *model;
    const char *name;
    const char *processors[8];
};

extern const ModelRow kModelRows[];
extern const size_t kModelRowCount;

#endif
