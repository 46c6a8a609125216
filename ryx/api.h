// Visibility of the public interface: everything else in libryx.so is hidden.
#ifndef RYX_API_H
#define RYX_API_H

#define RYX_API __attribute__((visibility("default")))

#endif
