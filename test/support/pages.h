/// Pages of memory, as the system gives them.
#pragma once

#include <cstddef>

namespace vorn_test {

size_t page_size();
/// Pages of zeroes, null if there are none. REQUIRES here and below: `size` is a multiple of the page's size.
char* map_pages(size_t size);
/// Makes pages inaccessible. False: it failed.
bool forbid_pages(char* start, size_t size);
/// All that map_pages() gave.
void unmap_pages(char* start, size_t size);

}  // namespace vorn_test
