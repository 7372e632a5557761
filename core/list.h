// Intrusive singly linked list. A record's link is its first member, so a node and its record share an address;
// the list neither allocates nor frees.
#pragma once

struct list_node {
  list_node *next;
};

struct list {
  list_node *head;
};

// Inserts at the front, so lists iterate newest first. Returns the previous head, null if the list was empty.
list_node *list_add(list *into, list_node *node);

// Appends all nodes of `from` at the tail of `into`. `from` keeps its head: clear it (or use list_move_all), or both
// headers lead to the same nodes and the next append makes a cycle.
void list_cat(list *into, const list *from);

// Appends all nodes of `from` at the tail of `into` and leaves `from` empty.
void list_move_all(list *into, list *from);

// Appends one node that is on no list.
void list_append(list *into, list_node *node);

// Pops the first node; null if the list is null or empty.
list_node *list_remove(list *from);

// Unlinks a node. Returns 0, or -1 if the list is null or empty or does not hold the node.
int list_remove_node(list *from, list_node *node);

// Inline: a tick walks lists of 128 records.
inline list_node *list_get_head(const list *of) { return of->head; }
inline list_node *list_get_next(const list_node *node) { return node->next; }

// The same three steps for callers that know which records the list holds.
template <typename record> record *list_first(const list *of) { return reinterpret_cast<record *>(list_get_head(of)); }

template <typename record> record *list_after(const record *current) {
  return reinterpret_cast<record *>(list_get_next(&current->link));
}

template <typename record> record *list_pop(list *from) { return reinterpret_cast<record *>(list_remove(from)); }

// A walk over the records of a list, in one line:
//   for (mld_group *group : list_records<mld_group>(&intr->groups)) {
// The next record is fetched before the body, so the body may take its own record off the list.
template <typename record> struct list_walk {
  record *current; // null at the end
  record *following;
};

template <typename record> list_walk<record> list_walk_from(record *current) {
  return {current, current != nullptr ? reinterpret_cast<record *>(list_get_next(&current->link)) : nullptr};
}

template <typename record> list_walk<record> list_records(const list *of) {
  return list_walk_from(list_first<record>(of));
}

// What the compiler makes of the line above.
template <typename record> list_walk<record> begin(const list_walk<record> &walk) { return walk; }
template <typename record> list_walk<record> end(const list_walk<record> &) { return {nullptr, nullptr}; }
template <typename record> record *operator*(const list_walk<record> &walk) { return walk.current; }
template <typename record> void operator++(list_walk<record> &walk) { walk = list_walk_from(walk.following); }
template <typename record> bool operator!=(const list_walk<record> &left, const list_walk<record> &right) {
  return left.current != right.current;
}
