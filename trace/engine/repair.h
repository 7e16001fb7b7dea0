// The note of damage and its repair, between reservation and start.
#ifndef KZ_TRACE_ENGINE_REPAIR_H
#define KZ_TRACE_ENGINE_REPAIR_H

#include "trace/engine/engine.h"

// Notes what a reservation of `uReqLength` bytes found, in the head of a page set. Nothing is reserved until the repair.
void note_damage(trace_anchor_t *pAnchor, trace_damage_kind_t kind, uint32_t uReqLength) TR_HOLDS(anchor_set_lock);

// Says on standard error what was found.
void log_damage(const trace_damage_t *pDamage);

// Empties the ring of the damaged file or page in its mapping and clears the note. Of a page set it is called for the head.
void reinit_in_place(trace_anchor_t *pAnchor) TR_HOLDS(global_lock) TR_HOLDS(anchor_set_lock);

#endif
