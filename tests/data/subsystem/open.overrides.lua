overrides = {
  direct = { c = { k = 10 } },
  deep = { inner = { c = { k = 100 } } },
}
