// The entity tree and the re-entrant dispatch of notifiee lists.
#include "Zeb/Entity.h"

#include <algorithm>
#include <exception>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"

namespace Zeb {

namespace {
Lomi::Platform::DebugHandler& zebHandler() {
  static Lomi::Platform::DebugHandler& h = Lomi::Platform::getDebugHandler("Zeb");
  return h;
}
}  // namespace

// Counts a dispatch in and out, also when a notifiee throws, and compacts the
// member vector when the outermost dispatch ends.
class NotifieeList::DispatchScope {
 public:
  explicit DispatchScope(NotifieeList& list) : list_(list) { ++list_.dispatchDepth_; }
  ~DispatchScope() {
    if (--list_.dispatchDepth_ == 0 && list_.hasHoles_) {
      std::erase_if(list_.members_, [](Ptr<Notifiee> const& m) { return !m; });
      list_.hasHoles_ = false;
    }
  }
  DispatchScope(DispatchScope const&) = delete;
  DispatchScope& operator=(DispatchScope const&) = delete;

 private:
  NotifieeList& list_;
};

NotifieeList::~NotifieeList() {
  FMASSERT(dispatchDepth_ == 0, zebHandler(), "NotifieeList",
           "notifiee list of {} destroyed by one of its own notifiees during a dispatch",
           static_cast<void const*>(owner_));
}

bool NotifieeList::newMember(PtrInterface const* owner, Notifiee* notifiee) {
  if (!notifiee) {
    throw Lomi::RuntimeException("cannot add a null notifiee to the notifiees of {}",
                                 static_cast<void const*>(owner));
  }
  if (owner_ && owner && owner != owner_) {
    throw Lomi::RuntimeException(
        "cannot add notifiee {} to the notifiees of {}: the list belongs to {}",
        static_cast<void const*>(notifiee), static_cast<void const*>(owner),
        static_cast<void const*>(owner_));
  }
  if (isMember(notifiee)) return false;
  if (!owner_) owner_ = owner;
  members_.emplace_back(notifiee);
  return true;
}

bool NotifieeList::deleteMember(Notifiee const* notifiee) {
  auto it = std::find_if(members_.begin(), members_.end(),
                         [&](Ptr<Notifiee> const& m) { return m.get() == notifiee; });
  if (notifiee == nullptr || it == members_.end()) return false;
  if (dispatchDepth_ > 0) {
    // Running dispatches hold indices into members_: leave a hole.
    it->reset();
    hasHoles_ = true;
  } else {
    members_.erase(it);
  }
  return true;
}

void NotifieeList::deleteAll() {
  if (dispatchDepth_ > 0) {
    for (auto& m : members_) m.reset();
    hasHoles_ = true;
  } else {
    // Moved out first: a notifiee's destructor may look at this list.
    std::vector<Ptr<Notifiee>> gone;
    gone.swap(members_);
  }
}

size_t NotifieeList::members() const {
  return static_cast<size_t>(std::count_if(members_.begin(), members_.end(),
                                           [](Ptr<Notifiee> const& m) { return bool(m); }));
}

bool NotifieeList::isMember(Notifiee const* notifiee) const {
  return notifiee != nullptr &&
         std::any_of(members_.begin(), members_.end(),
                     [&](Ptr<Notifiee> const& m) { return m.get() == notifiee; });
}

template <typename Fn>
void NotifieeList::dispatch(Fn const& fn) {
  // Declared first, so released last: if a notifiee dropped the owner's last
  // outside reference, the owner (and this list within it) dies only after
  // the scope below has finished with the list.
  Ptr<PtrInterface const> const keepOwner = keepAlive(owner_);
  DispatchScope scope(*this);
  // Members added during the dispatch lie beyond `end` and wait for the next.
  size_t const end = members_.size();
  for (size_t i = 0; i < end; ++i) {
    Ptr<Notifiee> member = members_[i];
    if (!member || !member->hasNotificationActive()) continue;
    fn(*member);
  }
}

void NotifieeList::visit(AttributeId id, void const* key) {
  dispatch([&](Notifiee& n) { n.onAttribute(id, key); });
}

void NotifieeList::visitZeroReferences() {
  dispatch([](Notifiee& n) { n.onZeroReferences(); });
}

Entity::Entity(String name) : name_(std::move(name)) {}

Entity::~Entity() {
  if (parent_) std::erase(parent_->children_, this);
  // Orphaned front to back; parentIs(nullptr) takes each child off the list.
  while (!children_.empty()) {
    Entity* child = children_.front();
    try {
      child->parentIs(nullptr);
    } catch (std::exception const& e) {
      // A destructor cannot pass it on; the child is an orphan regardless.
      Lomi::Platform::emit(zebHandler(), 0, "Entity", "~Entity",
                           fmt::format("orphaning {} failed: {}", child->name(), e.what()));
    }
    if (!children_.empty() && children_.front() == child) children_.erase(children_.begin());
  }
}

void Entity::handleParent(Ptr<Entity> const&) {}

void Entity::parentIs(Entity* parent) {
  if (parent == parent_) return;
  if (parent) {
    for (Entity const* e = parent; e; e = e->parent_) {
      if (e == this) {
        throw Lomi::InvalidInitializeException(
            "cannot make {} the parent of {}: it is that entity or one of its descendants",
            parent->fullName(), fullName());
      }
    }
    if (parent->references() == 0) {
      throw Lomi::InvalidInitializeException(
          "cannot make {} the parent of {}: the parent is not held by a Ptr", parent->fullName(),
          fullName());
    }
  }
  if (parent_) std::erase(parent_->children_, this);
  parent_ = parent;
  if (parent_) parent_->children_.push_back(this);
  handleParent(Ptr<Entity>(parent));
}

String Entity::fullName() const {
  std::vector<Entity const*> path;
  for (Entity const* e = this; e; e = e->parent_) path.push_back(e);
  std::string out;
  for (auto it = path.rbegin(); it != path.rend(); ++it) {
    if (it != path.rbegin()) out += '/';
    out += (*it)->name().stdString();
  }
  return String(std::move(out));
}

}  // namespace Zeb
