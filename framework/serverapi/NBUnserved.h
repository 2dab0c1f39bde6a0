// The rows of an endpoint's table of slots it does not serve. NB_UNSERVED(Class, slot,
// result, T1, ..., Tn) defines `long long Class::slot(T1, ..., Tn)`: it sends nothing,
// never calls back and returns `result`.
#pragma once

#define NB_UNSERVED(Class, slot, result, ...)                                                                \
    long long Class::slot(__VA_ARGS__)                                                                       \
    {                                                                                                        \
        return result;                                                                                       \
    }
