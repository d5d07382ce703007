// The one export macro of the library: everything else is hidden at link time.
#ifndef MSMFACE_EXPORT_H
#define MSMFACE_EXPORT_H

#if defined(_WIN32)
#if defined(MSMFACE_BUILDING_LIBRARY)
#define MSMFACE_API __declspec(dllexport)
#else
#define MSMFACE_API __declspec(dllimport)
#endif
#else
#define MSMFACE_API __attribute__((visibility("default")))
#endif

#endif  // MSMFACE_EXPORT_H
