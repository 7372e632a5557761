#include "core/list.h"

list_node *list_add(list *into, list_node *node) {
  list_node *previous_head = into->head;
  node->next = previous_head;
  into->head = node;
  return previous_head;
}

void list_cat(list *into, const list *from) {
  if (from->head == nullptr) {
    return;
  }
  if (into->head == nullptr) {
    into->head = from->head;
    return;
  }
  list_node *last = into->head;
  while (last->next != nullptr) {
    last = last->next;
  }
  last->next = from->head;
}

void list_move_all(list *into, list *from) {
  list_cat(into, from);
  from->head = nullptr;
}

void list_append(list *into, list_node *node) {
  node->next = nullptr;
  const list single{node};
  list_cat(into, &single);
}

list_node *list_remove(list *from) {
  if (from == nullptr || from->head == nullptr) {
    return nullptr;
  }
  list_node *first = from->head;
  from->head = first->next;
  first->next = nullptr;
  return first;
}

int list_remove_node(list *from, list_node *node) {
  if (from == nullptr || from->head == nullptr) {
    return -1;
  }
  for (list_node **link = &from->head; *link != nullptr; link = &(*link)->next) {
    if (*link == node) {
      *link = node->next;
      node->next = nullptr;
      return 0;
    }
  }
  return -1;
}
