// ListPasses: the walks that are under way over a linked list whose elements have numbers.
//
// A walk knows which element comes next and which is the last of its pass. Whoever takes an element
// out of the list says so here, before the element is unlinked, so that no walk goes to what is
// gone.

#pragma once

#include <cstdint>

namespace Vel {

class ListPasses {
 public:
   static constexpr uint32_t none = 0xFFFF'FFFF;

   /// One walk, from `next` to `last`.
   class Pass {
    public:
      Pass( const Pass& ) = delete;
      Pass& operator=( const Pass& ) = delete;

    protected:
      Pass( ListPasses& passes, uint32_t next, uint32_t last )
         : next_( next ), last_( last ), passes_( passes ), link_( passes.first_ ) {
         passes.first_ = this;
      }
      ~Pass() {
         Pass** at = &passes_.first_;
         while ( *at != this ) {
            at = &( *at )->link_;
         }
         *at = link_;
      }

      uint32_t next_;
      uint32_t last_;

    private:
      friend ListPasses;
      ListPasses& passes_;
      Pass* link_;
   };

   bool empty() const { return first_ == nullptr; }
   /// The element between these two leaves the list.
   void elementGoes( uint32_t element, uint32_t previous, uint32_t next ) {
      for ( Pass* pass = first_; pass; pass = pass->link_ ) {
         if ( pass->next_ == element ) {
            pass->next_ = element == pass->last_ ? none : next;
         } else if ( pass->last_ == element ) {
            pass->last_ = previous;
         }
      }
   }
   /// All elements leave the list.
   void allGo() {
      for ( Pass* pass = first_; pass; pass = pass->link_ ) {
         pass->next_ = none;
      }
   }

 private:
   Pass* first_ = nullptr;
};

} // namespace Vel
