// The rows of the facade's forward table. NB_FORWARD(Exported, slot, T1, ..., Tn)
// defines `long long ServerApi::Exported(T1 a1, ..., Tn an)`, which calls the current
// endpoint's `slot(a1, ..., an)` (by-value arguments moved) and returns its result,
// or -1 without an endpoint. The compiler matches each row against the declaration in
// INBSeverApi.h. Needs a function `NBServerApi* endpoint(const char* function)`.
#pragma once

#include <utility>

#define NB_PARAMS_1(T1) T1 a1
#define NB_PARAMS_2(T1, T2) NB_PARAMS_1(T1), T2 a2
#define NB_PARAMS_3(T1, T2, T3) NB_PARAMS_2(T1, T2), T3 a3
#define NB_PARAMS_4(T1, T2, T3, T4) NB_PARAMS_3(T1, T2, T3), T4 a4
#define NB_PARAMS_5(T1, T2, T3, T4, T5) NB_PARAMS_4(T1, T2, T3, T4), T5 a5
#define NB_PARAMS_6(T1, T2, T3, T4, T5, T6) NB_PARAMS_5(T1, T2, T3, T4, T5), T6 a6
#define NB_PARAMS_7(T1, T2, T3, T4, T5, T6, T7) NB_PARAMS_6(T1, T2, T3, T4, T5, T6), T7 a7
#define NB_PARAMS_8(T1, T2, T3, T4, T5, T6, T7, T8) NB_PARAMS_7(T1, T2, T3, T4, T5, T6, T7), T8 a8
#define NB_ARGS_1(T1) std::forward<T1>(a1)
#define NB_ARGS_2(T1, T2) NB_ARGS_1(T1), std::forward<T2>(a2)
#define NB_ARGS_3(T1, T2, T3) NB_ARGS_2(T1, T2), std::forward<T3>(a3)
#define NB_ARGS_4(T1, T2, T3, T4) NB_ARGS_3(T1, T2, T3), std::forward<T4>(a4)
#define NB_ARGS_5(T1, T2, T3, T4, T5) NB_ARGS_4(T1, T2, T3, T4), std::forward<T5>(a5)
#define NB_ARGS_6(T1, T2, T3, T4, T5, T6) NB_ARGS_5(T1, T2, T3, T4, T5), std::forward<T6>(a6)
#define NB_ARGS_7(T1, T2, T3, T4, T5, T6, T7) NB_ARGS_6(T1, T2, T3, T4, T5, T6), std::forward<T7>(a7)
#define NB_ARGS_8(T1, T2, T3, T4, T5, T6, T7, T8) NB_ARGS_7(T1, T2, T3, T4, T5, T6, T7), std::forward<T8>(a8)
#define NB_COUNT_(_1, _2, _3, _4, _5, _6, _7, _8, n, ...) n
#define NB_COUNT(...) NB_COUNT_(__VA_ARGS__, 8, 7, 6, 5, 4, 3, 2, 1, 0)
#define NB_GLUE_(a, b) a##b
#define NB_GLUE(a, b) NB_GLUE_(a, b)
#define NB_FORWARD(Exported, slot, ...)                                                                      \
    long long ServerApi::Exported(NB_GLUE(NB_PARAMS_, NB_COUNT(__VA_ARGS__))(__VA_ARGS__))                   \
    {                                                                                                        \
        NBServerApi* api = endpoint(#Exported);                                                              \
        return api ? api->slot(NB_GLUE(NB_ARGS_, NB_COUNT(__VA_ARGS__))(__VA_ARGS__)) : -1;                  \
    }
