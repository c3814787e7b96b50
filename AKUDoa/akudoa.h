#ifndef AKUDOA_AKUDOA_H
#define AKUDOA_AKUDOA_H

// Umbrella header: every public header of the library.
#include "AKUDoa/base/akudoaexport.h"
#include "AKUDoa/akudoacamcfg.h"
#include "AKUDoa/akudoafreqbands.h"
#include "AKUDoa/base/akudoamatrix.h"
#include "AKUDoa/base/akudoaarray.h"
#include "AKUDoa/base/akudoaneon.h"
#include "AKUDoa/base/akudoamath.h"
#include "AKUDoa/base/akudoalogging.h"
#include "AKUDoa/akudoacordinate.h"
#include "AKUDoa/base/akufftwindow.h"
#include "AKUDoa/akudoakernel.h"
#include "AKUDoa/akudoapickupv4.h"
#include "AKUDoa/iir/akufilter.h"
#include "AKUDoa/iir/akuiirdesigner.h"
#include "AKUDoa/akucluster.h"
#include "AKUDoa/akugaussianprocessregression.h"
#include "AKUDoa/akudoabalancebk.h"
#include "AKUDoa/akudoadistance.h"
#include "AKUDoa/akudoaquantizeline.h"
#include "AKUDoa/akudoaquantizev4.h"
#include "AKUDoa/iakudoaquantize.h"
#include "AKUDoa/akudoaquantizev3.h"
#include "AKUDoa/akudoaquantizeparam.h"
#include "AKUDoa/akudoaextra.h"

#endif
