#include "platform/snapshot_tree.hpp"
