// FreeWith<fn>: the deleter of a std::unique_ptr whose object the C function `fn`
// releases, e.g. std::unique_ptr<DIR, FreeWith<closedir>>. One spelling for every owner
// of a C library's object, in libkx, the daemon and the tools.
#ifndef KX_FREE_H
#define KX_FREE_H

template <auto Free> struct FreeWith {
    template <class T> void operator()(T *p) const { Free(p); }
};

#endif
