// Sorting and selection on plain arrays.
#include "common/numerics/Sorttools.h"

#include "common/numerics/Randomnumbers.h"

#include <algorithm>
#include <utility>

namespace {

template <typename T>
void Bubble(T* v, int n) {
  for (int i = 0; i < n - 1; ++i) {
    bool swapped = false;
    for (int j = 0; j < n - 1 - i; ++j)
      if (v[j] > v[j + 1]) {
        std::swap(v[j], v[j + 1]);
        swapped = true;
      }
    if (!swapped) break;
  }
}

template <typename T>
void IndexBubble(T* v, int* index, int n) {
  for (int i = 0; i < n - 1; ++i) {
    bool swapped = false;
    for (int j = 0; j < n - 1 - i; ++j)
      if (v[j] > v[j + 1]) {
        std::swap(v[j], v[j + 1]);
        if (index) std::swap(index[j], index[j + 1]);
        swapped = true;
      }
    if (!swapped) break;
  }
}

// Median-of-three Quicksort with an explicit stack; partitions below kInsertionLimit are finished by
// straight insertion. Every exchange of values is applied to the optional index array.
constexpr int kInsertionLimit = 7;

template <typename T>
void Quick(T* a, int* idx, unsigned un) {
  const int n = static_cast<int>(un);
  if (n < 2) return;
  auto swp = [&](int i, int j) {
    std::swap(a[i], a[j]);
    if (idx) std::swap(idx[i], idx[j]);
  };
  int stack[128];
  int top = 0;
  int l = 0, ir = n - 1;
  for (;;) {
    if (ir - l < kInsertionLimit) {
      for (int j = l + 1; j <= ir; ++j) {
        T v = a[j];
        int vi = idx ? idx[j] : 0;
        int i = j - 1;
        for (; i >= l; --i) {
          if (!(a[i] > v)) break;
          a[i + 1] = a[i];
          if (idx) idx[i + 1] = idx[i];
        }
        a[i + 1] = v;
        if (idx) idx[i + 1] = vi;
      }
      if (top == 0) break;
      ir = stack[--top];
      l = stack[--top];
    } else {
      const int k = (l + ir) >> 1;
      swp(k, l + 1);
      if (a[l] > a[ir]) swp(l, ir);
      if (a[l + 1] > a[ir]) swp(l + 1, ir);
      if (a[l] > a[l + 1]) swp(l, l + 1);
      int i = l + 1, j = ir;
      const T pivot = a[l + 1];
      const int pivotIdx = idx ? idx[l + 1] : 0;
      for (;;) {
        do ++i;
        while (a[i] < pivot);
        do --j;
        while (a[j] > pivot);
        if (j < i) break;
        swp(i, j);
      }
      a[l + 1] = a[j];
      a[j] = pivot;
      if (idx) {
        idx[l + 1] = idx[j];
        idx[j] = pivotIdx;
      }
      // Push the larger partition, work on the smaller one.
      if (ir - i + 1 >= j - l) {
        stack[top++] = i;
        stack[top++] = ir;
        ir = j - 1;
      } else {
        stack[top++] = l;
        stack[top++] = j - 1;
        l = i;
      }
    }
  }
}

} // namespace

void BubbleSort(float* values, int n) {
  Bubble(values, n);
}
void BubbleSort(int* values, int n) {
  Bubble(values, n);
}
void IndexBubbleSort(double* values, int* index, int n) {
  IndexBubble(values, index, n);
}
void IndexBubbleSort(float* values, int* index, int n) {
  IndexBubble(values, index, n);
}

void QuickSort(float* values, unsigned n) {
  Quick(values, nullptr, n);
}
void QuickSort(int* values, unsigned n) {
  Quick(values, nullptr, n);
}
void QuickSort(double* values, unsigned n) {
  Quick(values, nullptr, n);
}
void IndexQuickSort(float* values, int* index, unsigned n) {
  Quick(values, index, n);
}
void IndexQuickSort(double* values, int* index, unsigned n) {
  Quick(values, index, n);
}

float QuickSelect(float* arr, int n, int k) {
  if (n < 1) return 0.0f;
  k = std::clamp(k, 0, n - 1);
  int l = 0, ir = n - 1;
  for (;;) {
    if (ir <= l + 1) {
      if (ir == l + 1 && arr[ir] < arr[l]) std::swap(arr[l], arr[ir]);
      return arr[k];
    }
    const int mid = (l + ir) >> 1;
    std::swap(arr[mid], arr[l + 1]);
    if (arr[l] > arr[ir]) std::swap(arr[l], arr[ir]);
    if (arr[l + 1] > arr[ir]) std::swap(arr[l + 1], arr[ir]);
    if (arr[l] > arr[l + 1]) std::swap(arr[l], arr[l + 1]);
    int i = l + 1, j = ir;
    const float a = arr[l + 1];
    for (;;) {
      do ++i;
      while (arr[i] < a);
      do --j;
      while (arr[j] > a);
      if (j < i) break;
      std::swap(arr[i], arr[j]);
    }
    arr[l + 1] = arr[j];
    arr[j] = a;
    if (j >= k) ir = j - 1;
    if (j <= k) l = i;
  }
}

float STCalculateMedian(float* values, int n, bool average) {
  if (n < 3) return values[0];
  const int k = (n - 1) / 2;
  const float lower = QuickSelect(values, n, k);
  if (n % 2 == 0 && average) {
    // After selection every element above k is at least the k-th: the next one is their minimum.
    float upper = values[k + 1];
    for (int i = k + 2; i < n; ++i) upper = std::min(upper, values[i]);
    return static_cast<float>((double(lower) + upper) * 0.5);
  }
  return lower;
}

void RandomizeIndexArray(int* array, int n, int range) {
  if (n < 2) return;
  if (range < 1 || range > n) range = n;
  for (int i = 0; i < n; ++i) {
    const int j = RandomRange(range);
    std::swap(array[i], array[j]);
  }
}
