// Diagnostic trace of a whole image: the header's fields and the tree's names.
#include "manage_perms.h"
#include "permissions/image_view.h"
#include "utils/trace.h"

namespace {

using namespace kavrin;

constexpr int kHeaderThreshold = 7;

}  // namespace

extern "C" void walk_tree(kavrin_be_header_t* beheader, fs_elem_t* parent, int level) {
    const ImageView image(beheader);
    assert_validity_mark(image);
    KV_ASSERT_AS(parent->signature == FSELEMSIG, "parent->signature == FSELEMSIG");
    KV_TRACE(kTrace, "Level %d Name %s", level + 1, image.name_of(*parent).name);
    if ((parent->flags & FSELEM_FLAG_NOCHILDREN) != 0) return;
    const child_list_t& list = image.children_of(*parent);
    const std::uint32_t self = raw(image.offset_of(*parent));
    for (std::uint32_t slot = 0; slot < list.num_children; ++slot) {
        fs_elem_t& child = image.element(ElementOffset{list.children_offsets[slot]});
        // In an image cut short an unfilled slot names the root, and an element without a list
        // reads somebody else's: only a child that knows its parent is one.
        if (child.parent_offset == self) walk_tree(beheader, &child, level + 1);
    }
}

extern "C" void print_tree(kavrin_be_header_t* beheader) {
    KV_TRACE(kHeaderThreshold, "Summary");
    KV_TRACE(kHeaderThreshold, "Map name %.*s", MAXMAP_NAMELEN, beheader->mapname);
    KV_TRACE(kHeaderThreshold, "next map %.*s", MAXMAP_NAMELEN, beheader->nextmap);
    KV_TRACE(kHeaderThreshold, "Generation number %lu",
             static_cast<unsigned long>(beheader->generationnum));
    KV_TRACE(kHeaderThreshold, "Time stamp %lu", static_cast<unsigned long>(beheader->timestamp));
    KV_TRACE(kHeaderThreshold, "Total filesystem elems %u", beheader->total_fselems);
    KV_TRACE(kHeaderThreshold, "Total ACEs %u", beheader->total_aces);
    KV_TRACE(kHeaderThreshold, "Total lists %u", beheader->total_lists);
    KV_TRACE(kHeaderThreshold, "Fselem offset %u", beheader->fselem_offset);
    KV_TRACE(kHeaderThreshold, "Fselem size %u", beheader->fselem_size);
    KV_TRACE(kHeaderThreshold, "Next free fselem  %u", beheader->next_free_fselem);
    KV_TRACE(kHeaderThreshold, "Name elem offser %u", beheader->nameelem_offset);
    KV_TRACE(kHeaderThreshold, "Name eleem size %u", beheader->nameelem_size);
    KV_TRACE(kHeaderThreshold, "Next free nameelem %u", beheader->next_free_nameelem);
    KV_TRACE(kHeaderThreshold, "Acl offset %u", beheader->acl_offset);
    KV_TRACE(kHeaderThreshold, "ACL size %u", beheader->acl_size);
    KV_TRACE(kHeaderThreshold, "Next free ACL %u", beheader->next_free_acl);
    KV_TRACE(kHeaderThreshold, "List offset %u", beheader->list_offset);
    KV_TRACE(kHeaderThreshold, "List size %u", beheader->list_size);
    KV_TRACE(kHeaderThreshold, "Next free list %u", beheader->next_free_list);
    KV_TRACE(kHeaderThreshold, "Signature %u", beheader->signature);

    walk_tree(beheader, &ImageView(beheader).element(kRootElement), 0);
}
