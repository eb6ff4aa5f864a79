// Sorting and selection on plain arrays: bubble sort for short lists, median-of-three Quicksort,
// index-carrying variants, Quickselect and the median.
#pragma once

/// Rising bubble sort, for short lists.
void BubbleSort(float* values, int n);
void BubbleSort(int* values, int n);
/// Rising bubble sort that applies every exchange to index as well.
void IndexBubbleSort(double* values, int* index, int n);
void IndexBubbleSort(float* values, int* index, int n);

/// Rising Quicksort (median of three, explicit stack, insertion sort below a small partition).
void QuickSort(float* values, unsigned n);
void QuickSort(int* values, unsigned n);
void QuickSort(double* values, unsigned n);
/// Quicksort that applies every exchange to index as well.
void IndexQuickSort(float* values, int* index, unsigned n);
void IndexQuickSort(double* values, int* index, unsigned n);

/// The k-th smallest value (0-based); the array is reordered.
float QuickSelect(float* values, int n, int k);
/// The median; n below 3 gives the first element. The array is reordered.
float STCalculateMedian(float* values, int n, bool average);
/// Shuffles array[0..n-1] with random indices below range (range limited to n).
void RandomizeIndexArray(int* array, int n, int range);
