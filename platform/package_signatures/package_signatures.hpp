#pragma once

// The package-signature library: certificates, the CMS signatures embedded in package files,
// and the device's database of the certificates that signed each installed package.

#include "platform/package_signatures/certificate.hpp"
#include "platform/package_signatures/cms.hpp"
#include "platform/package_signatures/database.hpp"
#include "platform/package_signatures/file_with_cmses.hpp"
