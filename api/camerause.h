// SPDX-License-Identifier: LGPL-2.1-or-later
#ifndef KAVREL_API_CAMERAUSE_H
#define KAVREL_API_CAMERAUSE_H

class CCDWebCam;

namespace kavrel {

// One camera call of the API: looks the camera up in the registry anew and
// keeps the registry from being destroyed until the call has returned.
class CameraUse
{
public:
    explicit CameraUse(bool bSlaver);
    ~CameraUse();
    CameraUse(const CameraUse&) = delete;
    CameraUse& operator=(const CameraUse&) = delete;

    CCDWebCam* operator->() const { return m_pCamera; }

private:
    CCDWebCam* m_pCamera;
};

} // namespace kavrel

#endif
