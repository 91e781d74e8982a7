#include "common/thread/unforked_memory.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <future>
#include <limits>
#include <memory>
#include <memory_resource>
#include <new>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "tests/support/in_child.h"

namespace {

constexpr std::size_t kSize = std::size_t{64} * 1024;

#ifndef KEELMOND_SANITIZED

/// What the kernel says of the mapping at an address: letters of two, as in proc(5).
std::string flags_of(const void* memory) {
  std::ifstream maps("/proc/self/smaps");
  bool is_ours = false;
  for (std::string line; std::getline(maps, line);) {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
    if (std::sscanf(line.c_str(), "%lx-%lx ", &begin, &end) == 2) {
      const auto address = reinterpret_cast<std::uintptr_t>(memory);
      is_ours = begin <= address && address < end;
    }
    if (is_ours && line.starts_with("VmFlags:")) return line + " ";
  }
  return "";
}

/// Whether the page at an address is mapped in a child that is forked now.
bool is_in_a_child(void* memory) {
  const auto page = reinterpret_cast<std::uintptr_t>(memory) & -std::uintptr_t(::getpagesize());
  // Not `fork`, which may look at the stacks of all threads in the child.
  const pid_t child = ::_Fork();
  if (child == 0) ::_exit(::msync(reinterpret_cast<void*>(page), 1, MS_ASYNC) == 0 ? 1 : 0);
  int status = -1;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  return WEXITSTATUS(status) == 1;
}

[[gnu::section("unforked")]] constinit unforked_memory::static_object<int> g_object{1};
int g_ordinary_object = 1;

TEST(unforked_memory, is_not_in_a_child) {
  void* const memory = unforked_memory::allocate(kSize);
  ASSERT_NE(memory, nullptr);
  EXPECT_FALSE(is_in_a_child(memory));
  unforked_memory::release(memory, kSize);
}

TEST(unforked_memory, is_what_a_stack_is_made_while_its_thread_runs) {
  std::promise<void*> place;
  std::promise<void> end;
  std::thread thread([&] {
    int local = 0;
    place.set_value(&local);
    end.get_future().wait();
  });
  void* const local = place.get_future().get();
  EXPECT_TRUE(is_in_a_child(local));
  unforked_memory::add_stack_of(thread.native_handle());
  EXPECT_FALSE(is_in_a_child(local));
  end.set_value();
  thread.join();
}

TEST(unforked_memory, is_what_static_objects_lie_in_that_are_meant_to) {
  const child_end end = run_in_child([] {
    EXPECT_TRUE(is_in_a_child(&g_object));
    unforked_memory::add_static_objects();
    EXPECT_EQ(is_in_a_child(&g_object), ::getpagesize() > int{unforked_memory::kPageSize});
    EXPECT_EQ(g_object.value, 1);
    EXPECT_TRUE(is_in_a_child(&g_ordinary_object));
  });
  EXPECT_EQ(end.failures, "");
}

#ifdef M_TOP_PAD

TEST(unforked_memory, is_what_lies_behind_something_on_the_heap) {
  const child_end end = run_in_child([] {
    // Of a size that is taken from the end of the heap.
    const std::unique_ptr<char[]> first(new char[kSize]);
    const std::unique_ptr<char[]> second(new char[kSize]);
    ASSERT_LT(first.get(), second.get());
    unforked_memory::add_heap(kSize * 16, second.get());
    EXPECT_TRUE(is_in_a_child(first.get()));
    EXPECT_FALSE(is_in_a_child(second.get()));
  });
  EXPECT_EQ(end.failures, "");
}

TEST(unforked_memory, is_what_the_libc_allocates_next) {
  const child_end end = run_in_child([] {
    const std::unique_ptr<char[]> last(new char[kSize]);
    unforked_memory::add_heap(kSize * 16, last.get());
    // Not the first ones: what lay free before is used up first.
    std::vector<void*> blocks(40);
    for (void*& block : blocks)
      block = std::malloc(kSize / 4);
    EXPECT_FALSE(std::all_of(blocks.begin(), blocks.end(), is_in_a_child));
    for (void* const block : blocks)
      std::free(block);
  });
  EXPECT_EQ(end.failures, "");
}

#endif

TEST(unforked_memory, gets_no_large_pages) {
  void* const memory = unforked_memory::allocate(kSize);
  const bool has_large_pages = std::ifstream("/sys/kernel/mm/transparent_hugepage/enabled").good();
  EXPECT_EQ(flags_of(memory).find(" nh ") != std::string::npos, has_large_pages);
  unforked_memory::release(memory, kSize);
}

TEST(unforked_memory, lies_in_few_mappings) {
  std::vector<void*> all;
  const auto count_mappings = [] {
    std::ifstream maps("/proc/self/maps");
    int lines = 0;
    for (std::string line; std::getline(maps, line);)
      ++lines;
    return lines;
  };
  const int before = count_mappings();
  for (int i = 0; i < 100; ++i)
    all.push_back(unforked_memory::allocate(kSize));
  EXPECT_LT(count_mappings(), before + 20);
  for (void* const one : all)
    unforked_memory::release(one, kSize);
}

#endif

TEST(unforked_memory, is_zeroed_and_whole) {
  auto* const memory = static_cast<char*>(unforked_memory::allocate(kSize));
  for (std::size_t i = 0; i < kSize; ++i)
    ASSERT_EQ(memory[i], 0);
  memory[0] = memory[kSize - 1] = 'x';
  unforked_memory::release(memory, kSize);
  unforked_memory::release(nullptr, kSize);
}

TEST(unforked_memory, that_is_too_large_is_not_given) {
  constexpr std::size_t kTooMuch = std::numeric_limits<std::size_t>::max() / 2;
  EXPECT_EQ(unforked_memory::allocate(kTooMuch), nullptr);
  EXPECT_THROW(std::ignore = unforked_memory::resource()->allocate(kTooMuch), std::bad_alloc);
}

TEST(unforked_memory, serves_containers) {
  std::pmr::monotonic_buffer_resource memory(unforked_memory::resource());
  std::pmr::vector<std::pmr::string> texts(&memory);
  for (int i = 0; i < 10000; ++i)
    texts.emplace_back("a text that is too long to be kept in the string itself");
  EXPECT_EQ(texts.back().get_allocator().resource(), &memory);
  EXPECT_TRUE(unforked_memory::resource()->is_equal(*unforked_memory::resource()));
  EXPECT_FALSE(unforked_memory::resource()->is_equal(*std::pmr::new_delete_resource()));
}

}  // namespace
