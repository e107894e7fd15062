#include "common/simclist.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>

#include "common/kv_guard.h"
#include "common/simclist_internal.h"

namespace {

using position_iterator = std::list<void*>::const_iterator;

list_state* s_state(const list_t* list) {
  return list == nullptr ? nullptr : list->state;
}

// The state of a list that may be changed now.
list_state* s_changeable(list_t* list) {
  list_state* const state = s_state(list);
  return state == nullptr || state->iterator_active ? nullptr : state;
}

// Sets one attribute.
template <class Member, class Value>
int s_set(list_t* list, Member list_state::*member, Value value) {
  list_state* const state = s_state(list);
  if (state == nullptr) {
    return -1;
  }
  state->*member = value;
  return 0;
}

// The nearer end is walked from.
position_iterator s_at(const list_state& state, std::size_t position) {
  const std::size_t size = state.elements.size();
  return position <= size / 2
             ? std::next(state.elements.begin(), static_cast<std::ptrdiff_t>(position))
             : std::prev(state.elements.end(), static_cast<std::ptrdiff_t>(size - position));
}

void s_free_element(const list_state& state, void* element) {
  if (state.copies) {
    std::free(element);
  }
}

// What is stored for an element: itself, or a copy. Null when there is no memory.
void* s_stored_form(const list_state& state, const void* element) {
  if (!state.copies) {
    return const_cast<void*>(element);
  }
  const std::size_t size = state.meter(element);
  void* const copy = std::malloc(std::max<std::size_t>(size, 1));
  if (copy != nullptr) {
    std::memcpy(copy, element, size);
  }
  return copy;
}

int s_insert(list_state* state, position_iterator before, const void* element) {
  if (state->copies && element == nullptr) {
    return -1;
  }
  void* const stored = s_stored_form(*state, element);
  if (state->copies && stored == nullptr) {
    return -1;
  }
  try {
    state->elements.insert(before, stored);
  } catch (const std::bad_alloc&) {
    s_free_element(*state, stored);
    return -1;
  }
  return 0;
}

void s_erase(list_state* state, position_iterator first, position_iterator end) {
  std::for_each(first, end, [state](void* element) { s_free_element(*state, element); });
  state->elements.erase(first, end);
}

bool s_equal(const list_state& state, const void* a, const void* b) {
  return state.comparator == nullptr ? a == b : state.comparator(a, b) == 0;
}

position_iterator s_find(const list_state& state, const void* element) {
  return std::find_if(state.elements.begin(), state.elements.end(),
                      [&](const void* other) { return s_equal(state, other, element); });
}

// The element that the comparator puts in front of all others in the given direction.
void* s_extreme(const list_t* list, int direction) {
  const list_state* const state = s_state(list);
  if (state == nullptr || state->comparator == nullptr || state->elements.empty()) {
    return nullptr;
  }
  return *std::max_element(
      state->elements.begin(), state->elements.end(), [&](const void* a, const void* b) {
        return (direction > 0 ? state->comparator(a, b) : state->comparator(b, a)) < 0;
      });
}

void s_copy_attributes(const list_state& from, list_state& to) {
  to.comparator = from.comparator;
  to.seeker = from.seeker;
  to.meter = from.meter;
  to.copies = from.copies;
  to.hash_computer = from.hash_computer;
  to.serializer = from.serializer;
  to.unserializer = from.unserializer;
}

}  // namespace

int list_init(list_t* list) {
  if (list == nullptr) {
    return -1;
  }
  list->state = new (std::nothrow) list_state;
  return list->state == nullptr ? -1 : 0;
}

void list_destroy(list_t* list) {
  list_state* const state = s_state(list);
  if (state != nullptr) {
    s_erase(state, state->elements.begin(), state->elements.end());
    delete state;
    list->state = nullptr;
  }
}

int list_attributes_comparator(list_t* list, list_comparator comparator) {
  return s_set(list, &list_state::comparator, comparator);
}

int list_attributes_seeker(list_t* list, list_seeker seeker) {
  return s_set(list, &list_state::seeker, seeker);
}

int list_attributes_copy(list_t* list, list_meter meter, int copy_data) {
  const bool copies = copy_data != 0;
  list_state* const state = s_state(list);
  // Elements of two owners in one list could not be told apart.
  if (state == nullptr || (copies && meter == nullptr) ||
      (copies != state->copies && !state->elements.empty())) {
    return -1;
  }
  state->meter = meter;
  state->copies = copies;
  return 0;
}

int list_attributes_hash_computer(list_t* list, list_hash_computer computer) {
  return s_set(list, &list_state::hash_computer, computer);
}

int list_attributes_serializer(list_t* list, list_serializer serializer) {
  return s_set(list, &list_state::serializer, serializer);
}

int list_attributes_unserializer(list_t* list, list_unserializer unserializer) {
  return s_set(list, &list_state::unserializer, unserializer);
}

std::size_t list_size(const list_t* list) {
  const list_state* const state = s_state(list);
  return state == nullptr ? 0 : state->elements.size();
}

int list_empty(const list_t* list) {
  return list_size(list) == 0 ? 1 : 0;
}

int list_append(list_t* list, const void* element) {
  return list_insert_at(list, element, list_size(list));
}

int list_prepend(list_t* list, const void* element) {
  return list_insert_at(list, element, 0);
}

int list_insert_at(list_t* list, const void* element, std::size_t position) {
  list_state* const state = s_changeable(list);
  if (state == nullptr || position > state->elements.size()) {
    return -1;
  }
  return s_insert(state, s_at(*state, position), element);
}

void* list_get_at(const list_t* list, std::size_t position) {
  return position < list_size(list) ? *s_at(*list->state, position) : nullptr;
}

void* list_get_max(const list_t* list) {
  return s_extreme(list, 1);
}

void* list_get_min(const list_t* list) {
  return s_extreme(list, -1);
}

void* list_fetch(list_t* list) {
  return list_extract_at(list, 0);
}

void* list_extract_at(list_t* list, std::size_t position) {
  list_state* const state = s_changeable(list);
  if (state == nullptr || position >= state->elements.size()) {
    return nullptr;
  }
  const auto at = s_at(*state, position);
  void* const element = *at;
  state->elements.erase(at);
  return element;
}

int list_delete(list_t* list, const void* element) {
  list_state* const state = s_changeable(list);
  const auto at = state == nullptr ? position_iterator{} : s_find(*state, element);
  if (state == nullptr || at == state->elements.end()) {
    return -1;
  }
  s_erase(state, at, std::next(at));
  return 0;
}

int list_delete_at(list_t* list, std::size_t position) {
  return list_delete_range(list, position, position);
}

int list_delete_range(list_t* list, std::size_t first, std::size_t last) {
  list_state* const state = s_changeable(list);
  if (state == nullptr || first > last || last >= state->elements.size()) {
    return -1;
  }
  s_erase(state, s_at(*state, first), std::next(s_at(*state, last)));
  return 0;
}

int list_clear(list_t* list) {
  list_state* const state = s_changeable(list);
  if (state == nullptr) {
    return -1;
  }
  s_erase(state, state->elements.begin(), state->elements.end());
  return 0;
}

ssize_t list_locate(const list_t* list, const void* element) {
  const list_state* const state = s_state(list);
  if (state == nullptr) {
    return -1;
  }
  const auto at = s_find(*state, element);
  return at == state->elements.end() ? -1 : std::distance(state->elements.begin(), at);
}

int list_contains(const list_t* list, const void* element) {
  return list_locate(list, element) >= 0 ? 1 : 0;
}

void* list_seek(const list_t* list, const void* indicator) {
  const list_state* const state = s_state(list);
  if (state == nullptr || state->seeker == nullptr) {
    return nullptr;
  }
  const auto at =
      std::find_if(state->elements.begin(), state->elements.end(),
                   [&](const void* element) { return state->seeker(element, indicator) != 0; });
  return at == state->elements.end() ? nullptr : *at;
}

int list_concat(const list_t* a, const list_t* b, list_t* dest) {
  if (s_state(a) == nullptr || s_state(b) == nullptr || dest == nullptr || dest == a || dest == b ||
      list_init(dest) != 0) {
    return -1;
  }
  s_copy_attributes(*a->state, *dest->state);
  for (const list_t* source : {a, b}) {
    for (const void* element : source->state->elements) {
      if (list_append(dest, element) != 0) {
        list_destroy(dest);
        return -1;
      }
    }
  }
  return 0;
}

int list_sort(list_t* list, int direction) {
  list_state* const state = s_changeable(list);
  if (state == nullptr || state->comparator == nullptr || (direction != 1 && direction != -1)) {
    return -1;
  }
  state->elements.sort([state, direction](const void* a, const void* b) {
    return (direction > 0 ? state->comparator(a, b) : state->comparator(b, a)) < 0;
  });
  return 0;
}

int list_hash(const list_t* list, list_hash_t* out) {
  const list_state* const state = s_state(list);
  if (state == nullptr || out == nullptr) {
    return -1;
  }
  list_hash_t hash = list_hash_bytes(nullptr, 0);
  for (const void* element : state->elements) {
    const list_hash_t one = state->hash_computer == nullptr
                                ? reinterpret_cast<std::uintptr_t>(element)
                                : state->hash_computer(element);
    hash = list_hash_bytes(&one, sizeof one, hash);
  }
  *out = hash;
  return 0;
}

int list_iterator_start(list_t* list) {
  list_state* const state = s_state(list);
  if (state == nullptr || state->iterator_active.exchange(true)) {
    return -1;
  }
  state->next = state->elements.begin();
  return 0;
}

int list_iterator_hasnext(const list_t* list) {
  const list_state* const state = s_state(list);
  return state != nullptr && state->iterator_active && state->next != state->elements.end() ? 1 : 0;
}

void* list_iterator_next(list_t* list) {
  return list_iterator_hasnext(list) == 1 ? *list->state->next++ : nullptr;
}

int list_iterator_stop(list_t* list) {
  list_state* const state = s_state(list);
  return state != nullptr && state->iterator_active.exchange(false) ? 0 : -1;
}
