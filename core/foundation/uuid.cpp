// placeholder: not written yet
