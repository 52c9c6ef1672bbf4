/// A stored callback: a plain function and the context it is called with. Upgraders and package sources each
/// keep one; their owner's mutex, where there is one, guards it.
#pragma once

/// `Function` is a pointer type such as `int (*)(int, void*)`. Empty when `pCbFun` is null.
template <class Function>
struct CCallbackInfo {
  Function pCbFun = nullptr;
  void* pContext = nullptr;

  explicit operator bool() const { return pCbFun != nullptr; }
  bool operator==(const CCallbackInfo& other) const {
    return pCbFun == other.pCbFun && pContext == other.pContext;
  }
};
