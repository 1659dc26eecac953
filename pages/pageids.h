#ifndef VELD_PAGES_PAGEIDS_H
#define VELD_PAGES_PAGEIDS_H

/** Page ids. They are not in display order (1, 0, 2, 3); other code addresses the source page as 0. */
enum VeldPageId {
    kSourcePageId = 0,
    kEulaPageId = 1,
    kPickDestPageId = 2,
    kConclusionPageId = 3,
};

#endif
